// SPDX-License-Identifier: Apache-2.0
#include "bench/Comparison.h"

#include "base/Files.h"
#include "storage/Layout.h"
#include "storage/Listing.h"

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <zlib.h>

namespace vnlog::bench {

namespace {

constexpr size_t kLookAhead = 20000; // lines that may be lost in a row and the rest still be recognised

struct Closer {
    void operator()(gzFile file) const { (void)gzclose(file); }
};
using Reader = std::unique_ptr<gzFile_s, Closer>;

/** The state of one comparison. */
class Lines {
  public:
    Lines(const Corpus& corpus, size_t count, Form form) : mCorpus(corpus), mCount(count), mForm(form) {
        for (size_t i = 0; form == Form::AnyOrder && i < count; ++i)
            mSum += std::hash<std::string_view>{}(corpus.line(i));
    }

    void take(std::string_view line) {
        if (mForm == Form::AnyOrder) {
            mSum -= std::hash<std::string_view>{}(line);
            ++mNext;
            return;
        }
        size_t end = std::min(mCount, mNext + kLookAhead);
        for (size_t i = mNext; i < end; ++i) {
            if (!matches(line, mCorpus.line(i)))
                continue;
            mLost += i - mNext;
            mNext = i + 1;
            return;
        }
        mStrange += mForm == Form::Exact ? 1 : 0; // a program may add lines of its own
    }

    /** Lines that are missing, at another place, or not the corpus's. */
    size_t wrong() const {
        size_t differing = mNext < mCount ? mCount - mNext : mNext - mCount;
        bool others = mForm == Form::AnyOrder && differing == 0 && mSum != 0; // at least one
        return mLost + mStrange + differing + (others ? 1 : 0);
    }

  private:
    bool matches(std::string_view line, std::string_view wanted) const {
        if (mForm == Form::Exact)
            return line == wanted;
        return line.size() >= wanted.size() && line.substr(line.size() - wanted.size()) == wanted;
    }

    const Corpus& mCorpus;
    const size_t mCount;
    const Form mForm;
    size_t mNext = 0, mLost = 0, mStrange = 0;
    size_t mSum = 0;
};

/** Adds the sections of one run in order. */
void addSections(const char* run, std::vector<std::string>* files) {
    Listing listing(run);
    std::vector<std::pair<uint32_t, std::string>> sections;
    for (StoredEntry entry; listing.valid() && listing.next(&entry);) {
        Path path;
        if (entry.isSection() && listing.path(entry, &path))
            sections.emplace_back(entry.number, path.text);
    }
    std::sort(sections.begin(), sections.end());
    for (auto& section : sections)
        files->push_back(section.second);
}

} // namespace

std::vector<std::string> storedSections(const std::string& root) {
    const std::string logs = root + kDefaultRoot + "/" + kLogFolder;
    Listing listing(logs.c_str());
    std::vector<std::pair<uint32_t, std::string>> runs;
    for (StoredEntry entry; listing.valid() && listing.next(&entry);) {
        Path path;
        if (!listing.path(entry, &path))
            continue;
        if (entry.isRun())
            runs.emplace_back(entry.number, path.text);
        else if (entry.kind == NameKind::Current)
            runs.emplace_back(kNoNumber, path.text);
    }
    std::sort(runs.begin(), runs.end());
    std::vector<std::string> files;
    for (auto& run : runs)
        addSections(run.second.c_str(), &files);
    return files;
}

size_t compare(const std::vector<std::string>& files, const Corpus& corpus, size_t count, Form form,
               Sample* sample, const std::string& others) {
    Lines lines(corpus, count, form);
    size_t otherCount = 0;
    std::string text;
    auto split = [&] {
        size_t begin = 0;
        for (size_t end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
            std::string_view line(text.data() + begin, end + 1 - begin);
            if (!others.empty() && line.substr(0, others.size()) == others)
                ++otherCount;
            else
                lines.take(line);
        }
        text.erase(0, begin);
    };
    for (const std::string& path : files) {
        std::array<char, 65536> piece{};
        Reader file(gzopen(path.c_str(), "rbe"));
        int length = -1;
        while (file != nullptr && (length = gzread(file.get(), piece.data(), piece.size())) > 0) {
            text.append(piece.data(), static_cast<size_t>(length));
            split();
        }
        if (length != 0)
            sample->failure = path + " cannot be read";
        sample->bytes += static_cast<double>(fileSize(path.c_str()));
    }
    sample->lost += lines.wrong() + (text.empty() ? 0 : 1);
    return otherCount;
}

} // namespace vnlog::bench
