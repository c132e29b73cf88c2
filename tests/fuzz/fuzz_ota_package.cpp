// The OTA package header and the S8137 section behind it: header fields,
// digest check over the section, and the walk of the image directory that
// unpacks each image into /tmp.
//
// Input: the package file. Unless bit 0 of byte 0 is set, the harness
// writes the right digest into a section that lies inside the file, so that
// the directory behind the digest is reached. Slashes in image names become
// "_": the names are the package's to choose, but here they must not leave
// the private /tmp.
#include <cstdint>
#include <cstring>
#include <vector>

#include "tests/fuzz/fuzz_env.h"
#include "update/md5.h"
#include "update/ota.h"

namespace {

uint32_t le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24; }

void prepare(std::vector<uint8_t>& pkg)
{
    if (pkg.size() < 32) return;
    uint64_t off = le32(&pkg[24]), len = le32(&pkg[28]);
    for (uint64_t e = off + 16; e + 32 <= pkg.size() && e < off + 16 + 480; e += 40)
        for (uint64_t i = e; i < e + 32; ++i)
            if (pkg[i] == '/') pkg[i] = '_';
    if ((pkg[0] & 1) || len < 16 || off + len > pkg.size()) return;
    md5_context ctx;
    md5_init(&ctx);
    md5_update(&ctx, &pkg[off + 16], len - 16);
    md5_final(&ctx, &pkg[off]);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::setup();
    fuzz::open_port();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<uint8_t> pkg(data, data + size);
    prepare(pkg);
    fuzz::put_file(OTA_PACKAGE_PATH, pkg.data(), pkg.size());
    ota_info.s8137_offset = 0;
    ota_read_header();
    ota_info.s8137_offset = 0;  // the upgrade reads the header again
    do_s8137_upgrade();
    fuzz::clear_dir("/tmp");
    return 0;
}
