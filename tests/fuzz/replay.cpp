// Runs a fuzzing target over files, or over all files of folders, where there is no fuzzing
// library. A target that finds something ends the process.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size);

namespace {

void replay(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    fprintf(stderr, "%s\n", path.filename().c_str());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
}

}  // namespace

int main(int count, char **arguments) {
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < count; ++i) {
        if (std::filesystem::is_directory(arguments[i])) {
            for (const auto &entry : std::filesystem::directory_iterator(arguments[i])) {
                files.push_back(entry.path());
            }
        } else {
            files.emplace_back(arguments[i]);
        }
    }
    std::sort(files.begin(), files.end());
    for (const auto &path : files) {
        replay(path);
    }
    printf("%zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
