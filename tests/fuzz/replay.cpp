// Runs a fuzzing target where there is no fuzzing library: over files and all files of folders, or
// over random bytes. A target that finds something ends the process. A path that is not there, or a
// folder without files, is a failure: nothing would have been tried.
//
//   fuzz_NAME FILE-OR-FOLDER...
//   fuzz_NAME --random COUNT SEED MOST_BYTES    what was found is left in ./random-input
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size);

namespace {

// The file, or those of the folder. false: there is none.
bool add_files(const char *path, std::vector<std::filesystem::path> *files) {
    if (!std::filesystem::is_directory(path)) {
        files->emplace_back(path);
        return std::filesystem::is_regular_file(path);
    }
    const size_t before = files->size();
    for (const auto &entry : std::filesystem::directory_iterator(path)) {
        if (entry.is_regular_file()) {
            files->push_back(entry.path());
        }
    }
    return files->size() != before;
}

bool replay(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return false;
    }
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    fprintf(stderr, "%s\n", path.filename().c_str());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    return true;
}

// The file is written ahead of the run, which may not come back.
int run_random(uint64_t count, uint64_t seed, size_t most_bytes) {
    std::mt19937_64 random(seed);
    for (uint64_t n = 0; n < count; ++n) {
        std::vector<uint8_t> bytes(1 + random() % most_bytes);
        for (uint8_t &byte : bytes) {
            byte = static_cast<uint8_t>(random());
        }
        std::ofstream("random-input", std::ios::binary)
            .write(reinterpret_cast<const char *>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::filesystem::remove("random-input");
    printf("%llu inputs\n", static_cast<unsigned long long>(count));
    return 0;
}

}  // namespace

int main(int count, char **arguments) {
    if (count == 5 && std::strcmp(arguments[1], "--random") == 0) {
        return run_random(strtoull(arguments[2], nullptr, 10), strtoull(arguments[3], nullptr, 10),
                          strtoull(arguments[4], nullptr, 10));
    }
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < count; ++i) {
        if (!add_files(arguments[i], &files)) {
            fprintf(stderr, "%s: there is no file\n", arguments[i]);
            return 1;
        }
    }
    std::sort(files.begin(), files.end());
    for (const auto &path : files) {
        if (!replay(path)) {
            fprintf(stderr, "%s: cannot be read\n", path.c_str());
            return 1;
        }
    }
    printf("%zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
