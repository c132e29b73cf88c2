// Signature check of a 64 MiB OTA package, as the daemon runs it (one pass in
// 4096-byte blocks: SHA-256, then Ed25519), beside `openssl dgst -sha256` of
// the same file in the same run. Throughput per second of CPU time, reads
// included (the thread's CPU clock; the child's user + system time), best of
// five rounds taken in turn, so that others' load on shared cores stays out
// of the ratio.
//
//   bench_verify [MIB]
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "update/signature.h"

namespace {

double thread_cpu_s()
{
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

[[noreturn]] void die(const char* what)
{
    perror(what);
    exit(1);
}

// CPU seconds of `openssl dgst -sha256 FILE`, its output discarded.
double openssl_cpu_s(const std::string& file)
{
    pid_t pid = fork();
    if (pid < 0) die("fork");
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        execlp("openssl", "openssl", "dgst", "-sha256", file.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status;
    rusage ru;
    if (wait4(pid, &status, 0, &ru) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) die("openssl dgst");
    return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) + double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// A signed package of mib MiB under dir, and its key trusted.
std::string make_package(const std::string& dir, size_t mib)
{
    EVP_PKEY* key = nullptr;
    EVP_PKEY_CTX* kctx = EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr);
    if (!kctx || EVP_PKEY_keygen_init(kctx) != 1 || EVP_PKEY_keygen(kctx, &key) != 1) die("keygen");
    EVP_PKEY_CTX_free(kctx);
    std::string pub = dir + "/key.pub", file = dir + "/OTA_UPG.bin";
    FILE* f = fopen(pub.c_str(), "w");
    if (!f || PEM_write_PUBKEY(f, key) != 1 || fclose(f) != 0) die("public key");
    if (!signature_trust_key(pub.c_str()).empty()) die("trust");

    int fd = open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) die(file.c_str());
    std::vector<uint8_t> block(1 << 20);
    uint32_t x = 8137;
    for (size_t m = 0; m < mib; ++m) {
        for (auto& b : block) b = static_cast<uint8_t>((x = x * 1103515245 + 12345) >> 16);
        if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) die("write");
    }
    uint64_t end = uint64_t(mib) << 20;
    uint8_t buf[OTA_BLOCK], digest[SIGNATURE_DIGEST], message[SIGNATURE_MESSAGE], sig[SIGNATURE_BLOCK];
    if (!signature_digest(fd, signed_file::ota, end, buf, digest)) die("digest");
    signature_message(signed_file::ota, digest, message);
    if (!signature_key_id(key, sig)) die("key id");
    size_t len = SIGNATURE_SIZE;
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    if (!ctx || EVP_DigestSignInit(ctx, nullptr, nullptr, nullptr, key) != 1 ||
        EVP_DigestSign(ctx, sig + SIGNATURE_POS, &len, message, sizeof message) != 1)
        die("sign");
    EVP_MD_CTX_free(ctx);
    EVP_PKEY_free(key);
    memcpy(sig + SIGNATURE_MAGIC_POS, SIGNATURE_MAGIC, SIGNATURE_BLOCK - SIGNATURE_MAGIC_POS);
    if (pwrite(fd, sig, sizeof sig, static_cast<off_t>(end)) != static_cast<ssize_t>(sizeof sig)) die("write");
    close(fd);
    return file;
}

}  // namespace

int main(int argc, char** argv)
{
    size_t mib = argc > 1 ? strtoul(argv[1], nullptr, 10) : 64;
    char dir[] = "/tmp/bench_verify.XXXXXX";
    if (!mkdtemp(dir)) die("mkdtemp");
    std::string file = make_package(dir, mib);
    int fd = open(file.c_str(), O_RDONLY);
    if (fd < 0) die(file.c_str());
    uint8_t block[OTA_BLOCK];
    std::string empty = std::string(dir) + "/empty";
    close(open(empty.c_str(), O_WRONLY | O_CREAT, 0644));
    double best_verify = 1e9, best_openssl = 1e9, best_start = 1e9;
    for (int round = 0; round < 5; ++round) {
        double t0 = thread_cpu_s();
        std::string why = signature_verify(fd, signed_file::ota, block);
        double t = thread_cpu_s() - t0;
        if (!why.empty()) {
            fprintf(stderr, "verification failed: %s\n", why.c_str());
            return 1;
        }
        best_verify = std::min(best_verify, t);
        best_openssl = std::min(best_openssl, openssl_cpu_s(file));
        best_start = std::min(best_start, openssl_cpu_s(empty));
    }
    close(fd);
    unlink(file.c_str());
    unlink(empty.c_str());
    unlink((std::string(dir) + "/key.pub").c_str());
    rmdir(dir);
    double verify = double(mib) / best_verify, openssl = double(mib) / best_openssl;
    double hashing = double(mib) / (best_openssl - best_start);
    printf("%-62s %11s   %-44s %11s   %s\n", "figure", "value", "baseline", "value", "ratio");
    printf("%-62s %5.0f MiB/s   %-44s %5.0f MiB/s   %.2f\n", "signature check of a signed OTA package (SHA-256, Ed25519)",
           verify, "openssl dgst -sha256 of the file", openssl, verify / openssl);
    printf("%-62s %5.0f MiB/s   %-44s %5.0f MiB/s   %.2f\n", "", verify,
           "the same, its start-up (an empty file) taken off", hashing, verify / hashing);
    return 0;
}
