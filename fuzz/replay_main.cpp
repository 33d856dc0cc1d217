// Replay driver for the fuzz targets when libFuzzer is not used: runs every
// file given (or every file in the given folders) through the target, then a
// fixed number of deterministic mutations of each, so CTest exercises the
// target without a fuzzing engine.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

void collect(const std::string &path, std::vector<std::string> &files) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return;
    if (!S_ISDIR(st.st_mode)) {
        files.push_back(path);
        return;
    }
    DIR *dir = opendir(path.c_str());
    if (!dir) return;
    while (dirent *e = readdir(dir)) {
        const std::string name = e->d_name;
        if (name != "." && name != "..") collect(path + "/" + name, files);
    }
    closedir(dir);
}

void run(const std::string &bytes) {
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) collect(argv[i], files);
    std::mt19937 gen(12345);
    const char interesting[] = "0123456789.,;[] \t\n-+eExXinfa\"{}:tru\0";
    size_t runs = 0;
    for (const auto &f : files) {
        std::ifstream in(f, std::ios::binary);
        std::string seed((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        run(seed);
        ++runs;
        for (int m = 0; m < 300; ++m) {
            std::string s = seed;
            const int edits = 1 + static_cast<int>(gen() % 8);
            for (int e = 0; e < edits; ++e) {
                const size_t pos = s.empty() ? 0 : gen() % (s.size() + 1);
                const char c = interesting[gen() % (sizeof interesting - 1)];
                switch (gen() % 4) {
                    case 0: s.insert(s.begin() + pos, c); break;
                    case 1: if (pos < s.size()) s.erase(pos, 1); break;
                    case 2: if (pos < s.size()) s[pos] = c; break;
                    default: s = s.substr(0, pos); break;
                }
            }
            run(s);
            ++runs;
        }
    }
    std::printf("replayed %zu inputs from %zu files\n", runs, files.size());
    return files.empty() ? 1 : 0;
}
