// Runs a fuzz target over every file of the folders named as arguments, in the place of libFuzzer. A finding ends the
// process; a folder without files fails, so that a mistyped name does not pass.
#include "common/tip_handle.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace
{

bool run_file(const std::string &path)
{
    struct stat status;
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    file_ptr file(fopen(path.c_str(), "rb"));
    if (file == nullptr)
        return false;
    // Not one byte more than the file has, so that reading past the end is noticed.
    std::vector<uint8_t> data(static_cast<size_t>(status.st_size));
    size_t size = fread(data.data(), 1, data.size(), file.get());
    printf("%s\n", path.c_str());
    fflush(stdout);
    (void)LLVMFuzzerTestOneInput(data.data(), size);
    return true;
}

int run_folder(const std::string &folder)
{
    dir_ptr dir(opendir(folder.c_str()));
    int files = 0;
    for (const dirent *entry; dir != nullptr && (entry = readdir(dir.get())) != nullptr;)
        files += run_file(folder + "/" + entry->d_name);
    return files;
}

} // namespace

int main(int argc, char **argv)
{
    int status = argc > 1 ? 0 : 2;
    for (int i = 1; i < argc; ++i)
        if (run_folder(argv[i]) == 0) {
            fprintf(stderr, "%s: no file to run\n", argv[i]);
            status = 1;
        }
    return status;
}
