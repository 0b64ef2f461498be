// SPDX-License-Identifier: Apache-2.0
#include "tools/logviewStore.h"

#include "reader/FindStore.h"
#include "tools/Options.h"

#include <algorithm>
#include <climits>
#include <grp.h>
#include <string_view>
#include <vector>

using vnlog::kCurrentRun;

namespace {

int noStore(const std::string& what) {
    std::fprintf(stderr, "%s: %s\n", kViewer, what.c_str());
    return kWrongUsage;
}

/** The group whose members may read a folder, as words of a sentence; empty without one. */
std::string groupOf(const std::string& folder) {
    struct stat info;
    const bool readable = stat(folder.c_str(), &info) == 0 && (info.st_mode & 050) == 050;
    const group* found = readable ? getgrgid(info.st_gid) : nullptr;
    return found != nullptr ? "a member of the group " + std::string(found->gr_name) + ", " : "";
}

/** Tells why a store cannot be opened, and what to do. */
int cannotOpen(const OpenStore& store, int error) {
    if (error == EACCES || error == EPERM)
        return noStore("no permission to read " + store.root +
                       "; it takes the user that the service runs as, " + groupOf(store.root) + "or root");
    if (error != 0 && error != ENOENT && error != ENOTDIR)
        return noStore("cannot read " + store.root + ": " + std::strerror(error));
    if (store.ofService)
        return noStore("there is no store under " + store.root +
                       "; has the service ever run here? -D names another place");
    return noStore("there is no store in " + store.root +
                   "; it takes a folder that holds log_service, a log folder itself, or a bundle");
}

int openBundle(const ViewOptions& options, OpenStore* store) {
    std::string error;
    if (!store->bundle.open(options.store, &error))
        return noStore("cannot open " + options.store + ": " + error);
    store->root = store->bundle.folder();
    return kGoOn;
}

/** Finds the place that is to be opened. */
int findPlace(const ViewOptions& options, OpenStore* store) {
    struct stat info;
    if (options.store.empty()) {
        std::string error;
        store->ofService = true;
        store->root = vnlog::storeOfSystem(&error);
        return store->root.empty() ? noStore(error) : kGoOn;
    }
    store->root = options.store;
    if (stat(options.store.c_str(), &info) != 0 || S_ISDIR(info.st_mode))
        return kGoOn;
    if (options.follow)
        return wrongUsage("-f cannot follow a bundle, which does not grow");
    return openBundle(options, store);
}

/** All runs that are there, oldest first. */
using Runs = std::vector<uint32_t>;

/** One end of a range of runs: where it lies among those that are there. */
struct End {
    bool understood = false;
    bool there = false;
    size_t place = 0; ///< of the run, or of the next one behind it
};

/** `current`: whether the last of the runs is the present one. */
End findRun(std::string_view word, const Runs& runs, bool current) {
    constexpr size_t kMostDigits = 9;
    End end;
    bool back = word.substr(0, 1) == "-";
    std::string digits(word.substr(back ? 1 : 0));
    end.understood = !digits.empty() && digits.size() <= kMostDigits &&
                     digits.find_first_not_of("0123456789") == std::string::npos;
    if (!end.understood)
        return end;
    auto number = static_cast<uint32_t>(std::stoul(digits));
    const size_t archived = runs.size() - (current ? 1 : 0);
    if (number == 0) {
        end.there = current;
        end.place = archived;
    } else if (back) {
        end.there = number <= archived;
        end.place = end.there ? archived - number : 0;
    } else {
        auto last = runs.begin() + static_cast<Runs::difference_type>(archived);
        auto found = std::lower_bound(runs.begin(), last, number);
        end.there = found != last && *found == number;
        end.place = static_cast<size_t>(found - runs.begin());
    }
    return end;
}

/** Leaves those runs that a range or a single run names. False with `error` set. */
bool selectRuns(const std::string& wanted, bool current, Runs* runs, std::string* error) {
    size_t dots = wanted.find("..");
    bool range = dots != std::string::npos;
    std::string_view all = wanted, first = all.substr(0, dots), last = range ? all.substr(dots + 2) : first;
    End begin = findRun(first.empty() ? "1" : first, *runs, current);
    End end = findRun(last.empty() ? "0" : last, *runs, current);
    if (!begin.understood || !end.understood || wanted == "..") {
        *error = "-b: '" + wanted + "' is no run, as 0, -1 or 7, and no range, as -3..-1";
        return false;
    }
    size_t behind = std::min(end.place + (end.there ? 1 : 0), runs->size());
    if (begin.place >= behind) {
        *error = begin.there && end.there ? "-b: '" + wanted + "' ends before it begins"
                                          : "-b: there is no run " + wanted;
        return false;
    }
    *runs = Runs(runs->begin() + static_cast<Runs::difference_type>(begin.place),
                 runs->begin() + static_cast<Runs::difference_type>(behind));
    return true;
}

} // namespace

int openStore(const ViewOptions& options, OpenStore* store) {
    int status = findPlace(options, store);
    if (status != kGoOn)
        return status;
    return store->folder.open(store->root.c_str()) ? kGoOn : cannotOpen(*store, errno);
}

int chooseRuns(const ViewOptions& options, const OpenStore& store, vnlog::Scope* scope) {
    bool current = false;
    if (!store.folder.listRuns(&scope->runs, &current))
        return cannotOpen(store, errno);
    if (current)
        scope->runs.push_back(kCurrentRun);
    std::string error;
    if (scope->runs.empty()) {
        std::fprintf(stderr, "%s: the store in %s is empty: nothing was stored yet\n", kViewer,
                     store.folder.logs().c_str());
        return options.follow ? kGoOn : kNothing;
    }
    if (options.runs.empty() || options.runs == "all" ||
        selectRuns(options.runs, current, &scope->runs, &error))
        return kGoOn;
    return noStore(error + "; --list-runs tells which there are");
}
