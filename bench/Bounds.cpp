// SPDX-License-Identifier: Apache-2.0
#include "bench/Bounds.h"

#include "base/Files.h"
#include "base/Handles.h"
#include "bench/Child.h"
#include "bench/Place.h"

#include <cerrno>
#include <cstring>
#include <vector>
#include <zlib.h>

namespace vnlog::bench {

namespace {

constexpr size_t kSection = 65536;
constexpr int kGzipForm = 15 + 16; // zlib's largest window, with gzip's header and trailer

std::string failed(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

/** Writes the sections of a text; empty when one cannot be written. */
std::vector<std::string> writeSections(const std::string& folder, const std::string& text) {
    std::vector<std::string> paths;
    for (size_t begin = 0; begin < text.size(); begin += kSection) {
        paths.push_back(folder + "/log_" + std::to_string(paths.size() + 1) + ".txt");
        if (!writeFile(paths.back(), text.substr(begin, kSection)))
            return {};
    }
    settle(folder);
    return paths;
}

/** zlib's state, kept over all sections. */
class Compressor {
  public:
    Compressor() : mUsable(deflateInit2(&mState, 6, Z_DEFLATED, kGzipForm, 8, Z_DEFAULT_STRATEGY) == Z_OK) {}
    ~Compressor() { deflateEnd(&mState); }
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;

    /** One archive of the text; false when zlib refuses. */
    bool compress(std::vector<unsigned char>& text, size_t length, std::vector<unsigned char>* archive) {
        if (!mUsable || deflateReset(&mState) != Z_OK)
            return false;
        archive->resize(deflateBound(&mState, static_cast<uLong>(length)));
        mState.next_in = text.data();
        mState.avail_in = static_cast<uInt>(length);
        mState.next_out = archive->data();
        mState.avail_out = static_cast<uInt>(archive->size());
        bool whole = deflate(&mState, Z_FINISH) == Z_STREAM_END;
        archive->resize(archive->size() - mState.avail_out);
        return whole;
    }

  private:
    z_stream mState{};
    bool mUsable;
};

bool compressFile(const std::string& path, Compressor& compressor, std::vector<unsigned char>& text,
                  std::vector<unsigned char>& archive) {
    size_t length = 0;
    FileDescriptor file = openFile(path.c_str(), O_RDONLY);
    if (!file.valid() || !readPiece(file.get(), text.data(), text.size(), &length) ||
        !compressor.compress(text, length, &archive))
        return false;
    FileDescriptor target = openFile((path + ".gz").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    return target.valid() && writeAll(target.get(), archive.data(), archive.size());
}

} // namespace

Sample measureFloor(const std::string& folder, const std::string& text) {
    Sample sample;
    Place place(folder);
    const std::vector<std::string> sections = writeSections(place.path(), text);
    if (sections.empty())
        sample.failure = failed("cannot write the sections");
    double begin = now();
    for (const std::string& section : sections) {
        Sample one;
        Child gzip({"gzip", section});
        if (int status = gzip.wait(&one); status != 0) {
            sample.failure = "gzip ended with " + std::to_string(status);
            break;
        }
        sample.processor += one.processor;
    }
    sample.wall = now() - begin;
    for (const std::string& section : sections)
        sample.bytes += fileSize((section + ".gz").c_str());
    return sample;
}

Sample measureLimit(const std::string& folder, const std::string& text) {
    Sample sample;
    Place place(folder);
    const std::vector<std::string> sections = writeSections(place.path(), text);
    if (sections.empty())
        sample.failure = failed("cannot write the sections");
    Compressor compressor;
    std::vector<unsigned char> piece(kSection), archive;
    double begin = now(), processor = ownProcessor();
    for (const std::string& section : sections) {
        if (!compressFile(section, compressor, piece, archive)) {
            sample.failure = failed("cannot compress a section");
            break;
        }
        sample.bytes += static_cast<double>(archive.size());
    }
    sample.wall = now() - begin;
    sample.processor = ownProcessor() - processor;
    return sample;
}

} // namespace vnlog::bench
