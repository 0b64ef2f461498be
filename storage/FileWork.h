#pragma once

namespace vnlog {

/**
 * The work on files that the store leaves to others: one form of it per way to do it. All paths are absolute
 * and plain (shellSafe). Each returns whether the thing is done, and reports when it is not. Any thread that
 * is not cancelled meanwhile.
 */
class FileWork {
  public:
    virtual ~FileWork() = default;

    /** Puts the gzip archive `<text>.gz`, which must not exist, in the place of the text. */
    virtual bool compress(const char* text) = 0;
    /** Removes a file; done as well when there is none. */
    virtual bool removeFile(const char* path) = 0;
    /** Removes a folder with all that it holds; done as well when there is none. */
    virtual bool removeTree(const char* path) = 0;
    /** Removes what the folder holds under names that begin with `beginning`, hidden names excepted. */
    virtual bool removeEntries(const char* folder, const char* beginning) = 0;
    /** Gives the folder `from` the path `to`; where that is a folder already, moves it inside. */
    virtual bool moveFolder(const char* from, const char* to) = 0;
    /** Copies the folder `from` into the existing folder `into` and waits until the medium has it. */
    virtual bool copyTree(const char* from, const char* into) = 0;
};

} // namespace vnlog
