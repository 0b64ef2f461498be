// SPDX-License-Identifier: Apache-2.0
#include "bench/Place.h"

#include "base/Handles.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <unistd.h>

namespace vnlog::bench {

namespace fs = std::filesystem;

Place::Place(const std::string& parent) : mPath(parent + "/vnlog.XXXXXX") {
    mMade = mkdtemp(mPath.data()) != nullptr;
    if (!mMade)
        mPath = "/dev/null/nowhere"; // below a file nothing can be made
}

Place::~Place() {
    std::error_code ignored; // what cannot be removed harms nobody
    if (mMade)
        fs::remove_all(mPath, ignored);
}

bool makeFolders(const std::string& path) {
    std::error_code error;
    fs::create_directories(path, error);
    errno = error.value();
    return !error;
}

bool writeFile(const std::string& path, const std::string& content) {
    FileDescriptor file = openFile(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    return file.valid() && writeAll(file.get(), content.data(), content.size());
}

std::vector<std::string> filesOf(const std::string& folder, const std::string& beginning) {
    std::vector<std::string> files;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error))
        if (entry.is_regular_file(error) && entry.path().filename().string().rfind(beginning, 0) == 0)
            files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

void settle(const std::string& folder) {
    FileDescriptor medium = openFile(folder.c_str(), O_RDONLY | O_DIRECTORY);
    if (medium.valid())
        syncfs(medium.get());
}

} // namespace vnlog::bench
