// Runs a fuzz harness over saved inputs when the program is not built with
// libFuzzer: every file named, and every regular file of every folder named
// (in name order). A harness that crashes, or an assertion in it, fails the
// run; so does a run without any input, which would prove nothing.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool is_dir(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void collect(const std::string& path, std::vector<std::string>& out) {
    if (!is_dir(path)) {
        out.push_back(path);
        return;
    }
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) return;
    std::vector<std::string> names;
    for (dirent* e = readdir(dir); e != nullptr; e = readdir(dir))
        if (e->d_name[0] != '.') names.push_back(path + "/" + e->d_name);
    closedir(dir);
    std::sort(names.begin(), names.end());
    for (const std::string& n : names)
        if (!is_dir(n)) out.push_back(n);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) collect(argv[i], files);
    for (const std::string& f : files) {
        std::ifstream in(f, std::ios::binary);
        if (!in) {
            fprintf(stderr, "cannot read %s\n", f.c_str());
            return 1;
        }
        const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                         std::istreambuf_iterator<char>());
        fprintf(stderr, "replaying %s (%zu bytes)\n", f.c_str(), bytes.size());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    fprintf(stderr, "replayed %zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
