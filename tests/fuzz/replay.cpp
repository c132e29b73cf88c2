// Replays saved inputs through a fuzz harness without libFuzzer, so that a
// plain build's ctest catches again what the fuzzer once found: every file
// named, or in a directory named, goes to LLVMFuzzerTestOneInput in turn.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv)
{
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        if (fs::is_directory(argv[i], ec)) {
            for (const auto& e : fs::directory_iterator(argv[i]))
                if (e.is_regular_file()) inputs.push_back(e.path());
        } else if (fs::is_regular_file(argv[i], ec)) {
            inputs.emplace_back(argv[i]);
        } else {
            fprintf(stderr, "replay: no input file or directory %s\n", argv[i]);
            return 2;
        }
    }
    if (inputs.empty()) {
        fprintf(stderr, "replay: no inputs\n");
        return 2;
    }
    std::sort(inputs.begin(), inputs.end());
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    for (const auto& p : inputs) {
        std::ifstream in(p, std::ios::binary);
        std::vector<uint8_t> data{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        fprintf(stderr, "replay: %s (%zu bytes)\n", p.c_str(), data.size());
        LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    fprintf(stderr, "replay: %zu inputs, none failed\n", inputs.size());
    // The harnesses' helper threads (DSP stand-in, port drain) run to the
    // end: no static destructor may run under them.
    fflush(nullptr);
    _exit(0);
}
