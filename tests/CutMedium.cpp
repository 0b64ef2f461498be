// SPDX-License-Identifier: Apache-2.0
#include "CutMedium.h"

#include "Fixture.h"
#include "base/Handles.h"

#include <fstream>
#include <sys/time.h>

std::atomic<CutMedium*> CutMedium::recording{nullptr};

Image readImage(const std::string& folder) {
    Image image;
    for (auto& entry : fs::recursive_directory_iterator(folder))
        if (entry.path().filename().string().rfind("runs", 0) != 0) // the list, which nothing depends on
            image[entry.path().string().substr(folder.size() + 1)] =
                entry.is_directory() ? std::nullopt : std::optional(readFile(entry.path()));
    return image;
}

void writeImage(const std::string& folder, const Image& image) {
    for (auto& entry : fs::directory_iterator(folder))
        fs::remove_all(entry.path());
    for (auto& [path, content] : image) {
        std::string place = folder + "/" + path;
        timeval never[2] = {}; // an archive carries its text's time
        if (content)
            std::ofstream(place, std::ios::binary) << *content, utimes(place.c_str(), never);
        else
            fs::create_directory(place);
    }
}

CutMedium::CutMedium(std::string folder, const Image& found) : mFolder(std::move(folder)) {
    look(mFolder, false);
    for (auto& [path, content] : found) // a folder comes before what it holds
        look(mFolder + "/" + path, false);
    for (Inode& inode : mInodes) {
        inode.versions = {inode.versions.back()};
        inode.versions[0].step = inode.versions[0].synced = 0;
    }
    recording = this;
}

void CutMedium::stop() {
    if (recording == this)
        recording = nullptr;
}

bool CutMedium::find(const std::string& path, size_t* inode) const {
    if (path.compare(0, mFolder.size(), mFolder) != 0)
        return false;
    *inode = 0;
    std::istringstream parts(path.substr(mFolder.size()));
    for (std::string part; std::getline(parts, part, '/');) {
        const Names& names = mInodes[*inode].versions.back().names;
        auto found = names.find(part);
        if (found == names.end() && !part.empty())
            return false;
        *inode = part.empty() ? *inode : found->second;
    }
    return true;
}

/** Looks what a file or folder holds now. Whether it has changed. */
bool CutMedium::look(const std::string& path, bool moved) {
    size_t inode = 0;
    if (!find(path, &inode))
        return false;
    const Version last = mInodes[inode].versions.back();
    Version now{mSteps.size(), std::string::npos, {}, {}};
    if (!mInodes[inode].folder)
        now.bytes = readFile(path);
    vnlog::Folder folder(mInodes[inode].folder ? path.c_str() : "");
    while (const dirent* entry = folder.valid() ? folder.next() : nullptr) {
        if (std::strncmp(entry->d_name, "runs", 4) == 0)
            continue;
        if (!moved &&
            last.names.count(entry->d_name) == 0) { // it was made, if with the number of an older one
            mKnown[entry->d_ino] = mInodes.size();
            mInodes.push_back({entry->d_type == DT_DIR, {{now.step, now.step, {}, {}}}});
        }
        now.names[entry->d_name] = mKnown[entry->d_ino];
    }
    bool changed = now.names != last.names || now.bytes != last.bytes;
    if (changed)
        mInodes[inode].versions.push_back(now);
    return changed;
}

void CutMedium::changed(const char* what, const std::string& path, const std::string& target) {
    bool named = look(fs::path(path).parent_path(), !target.empty());
    bool more = target.empty() ? look(path, false) : look(fs::path(target).parent_path(), true);
    if (named || more)
        mSteps.push_back(what + path.substr(mFolder.size()));
}

void CutMedium::synced(int fd) {
    size_t inode = 0;
    if (!find(path(fd), &inode))
        return;
    mSteps.push_back("sync " + path(fd).substr(mFolder.size()));
    Version& version = mInodes[inode].versions.back();
    version.synced = std::min(version.synced, steps());
}

/** The path that an open file or folder has now. */
std::string CutMedium::path(int fd) {
    std::error_code none;
    return fs::read_symlink("/proc/self/fd/" + std::to_string(fd), none);
}

std::vector<CutMedium::Span> CutMedium::spans(size_t step) const {
    std::vector<Span> spans(mInodes.size());
    for (size_t inode = 0; inode < spans.size(); ++inode) {
        auto& versions = mInodes[inode].versions;
        for (size_t i = 0; i < versions.size() && versions[i].step <= step; ++i)
            spans[inode] = {versions[i].synced <= step ? i : spans[inode].first, i};
    }
    return spans;
}

Image CutMedium::image(size_t step, Kept names, Data data) const {
    std::vector<Span> all = spans(step);
    for (size_t inode = 0; inode < all.size(); ++inode)
        if (mInodes[inode].folder)
            all[inode] = names == Kept::Synced ? Span{all[inode].first, all[inode].first}
                                               : Span{all[inode].last, all[inode].last};
    Image image, found;
    Places rest{{"", 0}};
    grow(all, {data}, &image, &rest, [&](const Image& one) { found = one; });
    return found;
}

void CutMedium::eachState(size_t step, const Visit& visit) const {
    Image image;
    Places rest{{"", 0}};
    grow(spans(step), {std::begin(kData), std::end(kData)}, &image, &rest, visit);
}

/** Visits each image to which this one can grow by the rest; leaves both as they were. */
void CutMedium::grow(const std::vector<Span>& spans, const std::vector<Data>& data, Image* image,
                     Places* rest, const Visit& visit) const {
    if (rest->empty())
        return visit(*image);
    auto [path, number] = rest->back();
    rest->pop_back();
    const auto& [folder, versions] = mInodes[number];
    auto [first, last] = spans[number];
    for (size_t i = first; folder && i <= last; ++i) {
        size_t others = rest->size();
        if (number != 0)
            (*image)[path] = std::nullopt;
        for (auto& [name, inode] : versions[i].names)
            rest->emplace_back(number != 0 ? path + "/" + name : name, inode);
        grow(spans, data, image, rest, visit);
        rest->resize(others);
    }
    for (size_t i = first < last ? 0 : data.size() - 1; !folder && i < data.size(); ++i) {
        (*image)[path] = content(versions, spans[number], data[i]);
        grow(spans, data, image, rest, visit);
    }
    image->erase(path);
    rest->emplace_back(path, number);
}

std::string CutMedium::content(const std::vector<Version>& versions, Span span, Data data) {
    const std::string &old = versions[span.first].bytes, &all = versions[span.last].bytes;
    if (data == Data::None || data == Data::All || span.first == span.last)
        return data == Data::None ? old : all;
    size_t kept = all.size(), before = std::min(all.size(), versions[span.last - 1].bytes.size());
    for (size_t i = span.first; i < span.last; ++i) {
        const std::string& bytes = versions[i].bytes;
        auto differs = std::mismatch(all.begin(), all.end(), bytes.begin(), bytes.end());
        kept = std::min(kept, static_cast<size_t>(differs.first - all.begin()));
    }
    if (data == Data::Half)
        return all.substr(0, (before + all.size()) / 2);
    return all.substr(0, kept) + std::string(data == Data::Zeros ? all.size() - kept : 0, 0);
}
