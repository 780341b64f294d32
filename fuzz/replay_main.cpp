// Takes libFuzzer's place in a plain build: hands the files named, and those in the directories
// named, to the target, one by one.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace fs = std::filesystem;

void Replay(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
    int replayed = 0;
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i])) {
            Replay(argv[i]);
            ++replayed;
            continue;
        }
        for (const auto& entry : fs::recursive_directory_iterator(argv[i])) {
            if (entry.is_regular_file()) {
                Replay(entry.path());
                ++replayed;
            }
        }
    }
    std::printf("%d inputs replayed\n", replayed);
    return replayed > 0 ? 0 : 1;  // A corpus that has gone missing is no success.
}
