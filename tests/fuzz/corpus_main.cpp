// Gives every input of a folder to a fuzz target once, in the order of their names. An input that was a finding ends the process.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    std::vector<std::filesystem::path> inputs;
    for (const auto &entry : std::filesystem::directory_iterator(argc > 1 ? argv[1] : "."))
        inputs.push_back(entry.path());
    std::sort(inputs.begin(), inputs.end());
    for (const std::filesystem::path &path : inputs) {
        std::ifstream file(path, std::ios::binary);
        std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
        fprintf(stderr, "%s, %zu bytes\n", path.filename().c_str(), content.size());
        // Exactly as large as the input, so that a sanitizer sees one byte too far.
        auto *data = static_cast<uint8_t *>(malloc(content.empty() ? 1 : content.size()));
        if (!data)
            return 1;
        if (!content.empty())
            memcpy(data, content.data(), content.size());
        (void)LLVMFuzzerTestOneInput(data, content.size());
        free(data);
    }
    return inputs.empty();
}
