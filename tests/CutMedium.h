// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

/** What lies below a folder: path to content, which a folder has none of. */
using Image = std::map<std::string, std::optional<std::string>>;
Image readImage(const std::string& folder);
/** Replaces all that lies below the folder. */
void writeImage(const std::string& folder, const Image& image);

/**
 * Records what the objects behind the linker's seam do below a folder, from its construction on, and tells
 * what a medium can hold of that when the power is cut. What lay there before is on the medium. Data belongs
 * to files and names to folders; each is there for certain once its own file or folder is synced. While one
 * records, a sync costs nothing. One thread.
 */
class CutMedium {
  public:
    /** `found` is what lies there. */
    CutMedium(std::string folder, const Image& found);
    ~CutMedium() { stop(); }
    CutMedium(const CutMedium&) = delete;
    void stop();

    [[nodiscard]] size_t steps() const { return mSteps.size() - 1; }
    /** What was done as the last one of so many steps. */
    [[nodiscard]] const std::string& name(size_t step) const { return mSteps[step]; }
    enum class Kept { Synced, All };
    /** What there is of data that was not synced: none of it, nor of what it has replaced, zeros, half of the
     * last write, all. */
    enum class Data { None, NoBytes, Zeros, Half, All };
    static constexpr Data kData[] = {Data::None, Data::NoBytes, Data::Zeros, Data::Half, Data::All};
    using Visit = std::function<void(const Image&)>;
    /** What is found after a cut behind so many steps when all folders, and all files, keep the same. */
    [[nodiscard]] Image image(size_t step, Kept names, Data data) const;
    /** Visits all that can be found then: each folder has any number of its latest changes less, in their
     * order, and each file any of the above. */
    void eachState(size_t step, const Visit& visit) const;

    // For the wrappers, after a call that was successful; null while none records.
    static std::atomic<CutMedium*> recording;
    /** Something was done to a name or its file, which a move gives a new name. */
    void changed(const char* what, const std::string& path, const std::string& target = "");
    void synced(int fd);
    static std::string path(int fd);

  private:
    using Names = std::map<std::string, size_t>; ///< to numbers in mInodes
    using Places = std::vector<std::pair<std::string, size_t>>; ///< paths and what is there
    struct Version {
        size_t step; ///< that made it
        size_t synced; ///< step behind which it is on the medium
        Names names;
        std::string bytes;
    };
    struct Inode {
        bool folder;
        std::vector<Version> versions;
    };
    /** The version of a file or folder that is on the medium for certain, and the last one. */
    struct Span {
        size_t first, last;
    };

    bool find(const std::string& path, size_t* inode) const;
    bool look(const std::string& path, bool moved);
    std::vector<Span> spans(size_t step) const;
    static std::string content(const std::vector<Version>& versions, Span span, Data data);
    void grow(const std::vector<Span>& spans, const std::vector<Data>& data, Image* image, Places* rest,
              const Visit& visit) const;

    std::string mFolder;
    std::vector<std::string> mSteps{"nothing"};
    std::vector<Inode> mInodes{{true, {{0, 0, {}, {}}}}};
    std::map<ino_t, size_t> mKnown; ///< which inode the file system's number stands for at present
};
