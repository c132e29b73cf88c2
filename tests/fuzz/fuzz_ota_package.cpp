// The OTA package header and the S8137 section behind it: header fields, the
// digest over the section, and the walk of the image directory that unpacks
// each image into /tmp.
// Input: the package file. Unless bit 0 of byte 0 is set, the right digest
// goes into a section that lies inside the file, so that the directory is
// reached. Slashes in image names become "_": the names are the package's to
// choose, but here they must stay in /tmp.
#include <vector>

#include "tests/fuzz/fuzz_env.h"
#include "update/md5.h"
#include "update/ota.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) { return fuzz::start(), 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<uint8_t> pkg(data, data + size);
    if (size >= 32) {
        uint64_t off = fuzz::le32(&pkg[24]), len = fuzz::le32(&pkg[28]);
        for (uint64_t i = off + 16; i < size && i < off + 16 + 480; ++i)
            if ((i - off - 16) % 40 < 32 && pkg[i] == '/') pkg[i] = '_';
        if (!(pkg[0] & 1) && len >= 16 && off + len <= size) {
            md5_context ctx;
            md5_init(&ctx);
            md5_update(&ctx, &pkg[off + 16], len - 16);
            md5_final(&ctx, &pkg[off]);
        }
    }
    fuzz::put_file(OTA_PACKAGE_PATH, pkg);
    ota_info.s8137_offset = 0;
    ota_read_header();
    ota_info.s8137_offset = 0;  // the upgrade reads the header again
    do_s8137_upgrade();
    fuzz::clear_dir("/tmp");
    return 0;
}
