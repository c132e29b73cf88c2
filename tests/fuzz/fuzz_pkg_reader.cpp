// The reader of tty_hub_pkg inspect. Byte 0 chooses the file: bit 0 clear,
// the rest of the input is the file (an OTA package, or what detection makes
// of it); bit 0 set, the rest lies at the USB image table of a sparse file,
// told (bit 1 clear) or detected. A key is trusted, so that a block whose
// key id matches it is checked to the end.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

#include "tools/pkg/pkg_format.h"
#include "update/signature.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static FILE* sink = fopen("/dev/null", "w");
#if TTY_HUB_HAVE_SIGNING
    static bool trusted = [] {
        const char* path = "/tmp/fuzz_pkg_reader.pub";
        FILE* f = fopen(path, "w");
        if (!f || fputs("-----BEGIN PUBLIC KEY-----\nMCowBQYDK2VwAyEAadOiz20XpYSTHd3viya/XIaEMPQZzocbxVoyhBEzQa4=\n-----END PUBLIC KEY-----\n", f) < 0 || fclose(f) != 0 || !signature_trust_key(path).empty()) abort();
        return true;
    }();
    (void)trusted;
#endif
    if (size == 0) return 0;
    int fd = memfd_create("pkg", 0);
    bool usb = data[0] & 1;
    if (fd < 0 || pwrite(fd, data + 1, size - 1, usb ? USB_TABLE : 0) != static_cast<ssize_t>(size - 1)) abort();
    pkg::inspect_options options;
    if (usb && !(data[0] & 2)) options.what = pkg::kind::usb;
    pkg::finding first;
    int status = pkg::inspect(fd, options, sink, first);
    // A verdict always, and a wrong one names its field.
    if (status < 0 || status > 1 || (status == 1) == first.field.empty()) abort();
    close(fd);
    return 0;
}
