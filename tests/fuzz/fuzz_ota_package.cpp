// The OTA package header and its S8137 section: the digest over it and the
// image directory unpacked into /tmp. Input: the package. Unless bit 0 of
// byte 0 is set, a section inside the file gets its right digest, so that
// the directory is reached.
#include <vector>

#include "tests/fuzz/fuzz_env.h"
#include "update/md5.h"
#include "update/ota.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) { return fuzz::start(), 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<uint8_t> pkg(data, data + size);
    uint64_t off = size >= 32 ? fuzz::le32(&pkg[24]) : 0, len = size >= 32 ? fuzz::le32(&pkg[28]) : 0;
    if (size > 0 && !(pkg[0] & 1) && len >= 16 && off + len <= size) {
        md5_context ctx;
        md5_init(&ctx);
        md5_update(&ctx, &pkg[off + 16], len - 16);
        md5_final(&ctx, &pkg[off]);
    }
    fuzz::put_file(OTA_PACKAGE_PATH, pkg);
    ota_info.s8137_offset = 0;
    ota_read_header();
    ota_info.s8137_offset = 0;  // the upgrade reads the header again
    do_s8137_upgrade();
    fuzz::clear_dir("/tmp");
    return 0;
}
