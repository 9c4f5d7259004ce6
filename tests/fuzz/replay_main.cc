// Runs a fuzz target over files instead of under libFuzzer: every file named on
// the command line, or found in a directory named there, is one input. CTest
// replays each target's seed corpus this way with the ordinary compiler, so
// the inputs that once found a fault keep being checked in every build (and
// under the sanitizers of that build) between fuzzing runs.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path(argv[i]);
        if (std::filesystem::is_directory(path)) {
            for (const auto& entry : std::filesystem::directory_iterator(path)) {
                if (entry.is_regular_file()) inputs.push_back(entry.path());
            }
        } else {
            inputs.push_back(path);
        }
    }
    if (inputs.empty()) {
        std::fprintf(stderr, "usage: %s FILE|DIRECTORY...\n(no inputs found)\n", argv[0]);
        return 2;
    }
    for (const auto& path : inputs) {
        std::ifstream file(path, std::ios::binary);
        if (!file) {
            std::fprintf(stderr, "cannot read %s\n", path.c_str());
            return 2;
        }
        const std::string bytes((std::istreambuf_iterator<char>(file)),
                                std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%zu inputs replayed\n", inputs.size());
    return 0;
}
