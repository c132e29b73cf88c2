// tty_hub: serves one serial port, the MCU link on /dev/ttyS1 or the DSP
// tuning tool link on /dev/ttyS2.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <sys/file.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

#include "core/protocol.h"
#include "core/serial.h"
#include "update/signature.h"

namespace {

int baud_rate = 115200;
serial_options options{};
// -k FILE, each a public key that may sign upgrade files; loaded once the
// options have been judged, before the port is touched.
std::vector<const char*> key_files;

void usage()
{
    printf("Usage: %s [OPTION]\n\n"
           "  -h, --help\n"
           "  -b, --baud        Baud rate, 115200, etc (115200 is default)\n"
           "  -p, --port        Port (/dev/ttyS0, etc) (must be specified)\n"
           "  -c, --rts-cts     Enable RTS/CTS flow control\n"
           "  -B, --2-stop-bit  Use two stop bits per character\n"
           "  -P, --parity      Use parity bit (odd, even, mark, space)\n\n",
           "tty_hub");
}

void scan_options(int argc, char** argv)
{
    static const option long_options[] = {
        {"help", no_argument, nullptr, 'h'},     {"baud", required_argument, nullptr, 'b'},
        {"port", required_argument, nullptr, 'p'}, {"rts-cts", no_argument, nullptr, 'c'},
        {"2-stop-bit", no_argument, nullptr, 'B'}, {"parity", required_argument, nullptr, 'P'},
        {"ota-key", required_argument, nullptr, 'k'}, {nullptr, 0, nullptr, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, "hb:p:cBP:k:", long_options, nullptr)) != -1) {
        switch (c) {
        case 'h':
            usage();
            exit(0);
        case 'b':
            baud_rate = static_cast<int>(strtol(optarg, nullptr, 10));
            break;
        case 'p':
            free(options.port);
            options.port = strdup(optarg);
            break;
        case 'c':
            options.rts_cts = 1;
            break;
        case 'B':
            options.two_stop_bits = 1;
            break;
        case 'P':
            options.parity_on = 1;
            options.parity_odd = (!strcmp(optarg, "mark") || !strcmp(optarg, "odd")) ? 1 : 0;
            options.parity_stick = (!strcmp(optarg, "mark") || !strcmp(optarg, "space")) ? 1 : 0;
            break;
        case 'k':
            key_files.push_back(optarg);
            break;
        default:
            // getopt_long has printed its diagnostic; a bad option stops nothing.
            break;
        }
    }
}

// Every -k file trusted, or false after a line naming the one that failed.
bool load_keys()
{
    for (const char* file : key_files) {
#if TTY_HUB_HAVE_SIGNING
        std::string why = signature_trust_key(file);
        if (!why.empty()) {
            fprintf(stderr, "Error loading OTA key %s: %s\n", file, why.c_str());
            return false;
        }
#else
        fprintf(stderr, "Error loading OTA key %s: this tty_hub was built without signature checks\n", file);
        return false;
#endif
    }
    return true;
}

void configure_port(int speed_bits)
{
    termios tio;
    memset(&tio, 0, sizeof tio);
    // The rate reaches the driver through the speed bits of c_cflag alone.
    tio.c_cflag = static_cast<tcflag_t>(speed_bits) | CS8 | CREAD | CLOCAL;
    if (options.rts_cts) tio.c_cflag |= CRTSCTS;
    if (options.two_stop_bits) tio.c_cflag |= CSTOPB;
    if (options.parity_on) {
        tio.c_cflag |= PARENB;
        if (options.parity_odd) tio.c_cflag |= PARODD;
        if (options.parity_stick) tio.c_cflag |= CMSPAR;
    }
    tio.c_cc[VMIN] = 64;
    tio.c_cc[VTIME] = 1;
    tcflush(serial_fd, TCIOFLUSH);
    tcsetattr(serial_fd, TCSANOW, &tio);
}

int shutdown_port(int result)
{
    tcdrain(serial_fd);
    tcflush(serial_fd, TCIOFLUSH);
    free(options.port);
    options.port = nullptr;
    close(serial_fd);
    serial_fd = -1;
    return result;
}

int select_protocol()
{
    if (!strcmp(options.port, "/dev/ttyS1")) {
        puts("setup MCU interface!");
        return protocol_select(PROTO_MCU);
    }
    if (!strcmp(options.port, "/dev/ttyS2")) {
        puts("setup DSP tool interface!");
        return protocol_select(PROTO_DSPTOOL);
    }
    puts("unsupported port");
    return -22;
}

[[noreturn]] void wait_loop()
{
    fd_set readfds;
    FD_ZERO(&readfds);
    for (;;) {
        FD_SET(serial_fd, &readfds);
        if (select(serial_fd + 1, &readfds, nullptr, nullptr, nullptr) <= 0) continue;
        if (FD_ISSET(serial_fd, &readfds)) if_poll();
    }
}

}  // namespace

int main(int argc, char** argv)
{
    // Logs must reach a pipe or a journal line by line.
    setvbuf(stdout, nullptr, _IOLBF, 0);

    scan_options(argc, argv);
    if (!options.port) {
        fputs("ERROR: Port argument required\n", stderr);
        usage();
        return -22;
    }
    int speed_bits = baud_rate ? baud_to_speed(baud_rate) : -1;
    if (speed_bits < 1) {
        puts("Not supported baud rate");
        return -22;
    }
    if (!load_keys()) {
        free(options.port);
        exit(1);
    }
    // Close-on-exec: a program run through system() must not keep the port,
    // nor its lock, after the daemon has gone.
    serial_fd = open(options.port, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (serial_fd < 0) {
        perror("Error opening serial port");
        free(options.port);
        exit(1);
    }
    // One daemon per port: a second one would change the live port's
    // settings and split its input. flock binds root too, TIOCEXCL does not.
    if (flock(serial_fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        printf("%s is in use by another process\n", options.port);
        close(serial_fd);
        free(options.port);
        exit(1);
    }
    serial_name = options.port;
    configure_port(speed_bits);

    if (protocol_register_all() != 0) {
        puts("mcu interface init error!");
        return shutdown_port(-1);
    }
    if (int r = select_protocol(); r != 0) return shutdown_port(r);
    if (int r = protocol_current()->init(); r != 0) return shutdown_port(r);
    wait_loop();
}
