// Feeds files to a fuzzer's function, as its main program where there is no libFuzzer: what the
// fuzzer once found, or found worth keeping, is a test.
//
// Usage: corpus_NAME FOLDER...

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::directory_iterator folder(argv[i]);
        const std::size_t before = files.size();
        std::copy(begin(folder), end(folder), std::back_inserter(files));
        if (files.size() == before) {
            std::fprintf(stderr, "%s is empty\n", argv[i]);
            return 1;
        }
    }
    if (files.empty() || std::freopen("/dev/null", "w", stdout) == nullptr) {
        std::fprintf(stderr, "nothing to replay\n");
        return 1;
    }
    std::sort(files.begin(), files.end());
    for (const std::filesystem::path& path : files) {
        std::ifstream file(path, std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        std::fprintf(stderr, "%s\n", path.c_str());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::fprintf(stderr, "%zu replayed\n", files.size());
    return 0;
}
