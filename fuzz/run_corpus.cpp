// In the place of libFuzzer: runs the files of a corpus through a target, in the order of their names.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        fuzz::say(std::string("usage: ") + argv[0] + " FOLDER|FILE");
        return 2;
    }
    std::vector<std::filesystem::path> files;
    if (std::filesystem::is_directory(argv[1]))
        std::copy(std::filesystem::directory_iterator(argv[1]), {}, std::back_inserter(files));
    else
        files.emplace_back(argv[1]);
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        // The last one named is the one that a sanitizer or a check ended at.
        fuzz::say(file.filename().string());
        std::ifstream in(file, std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
        fuzz::must(in.good(), "the file can be read");
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    fuzz::say(std::to_string(files.size()) + " inputs");
    return files.empty() ? 1 : 0;
}
