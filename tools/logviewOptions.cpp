// SPDX-License-Identifier: Apache-2.0
#include "tools/logviewOptions.h"

#include "reader/TimeExpression.h"
#include "tools/Options.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <string_view>

namespace {

constexpr char kHelp[] =
    "Usage: logview [OPTION]... [PATTERN]...\n"
    "Shows what the log service has stored, oldest lines first. Without options: all of it.\n"
    "\n"
    "Which store:\n"
    "  -D, --directory DIR|FILE  a store, a copy of one, or a bundle (FILE.tar.gz);\n"
    "                            otherwise that of the service on this device\n"
    "      --sysroot DIR         the system root that the service was started with\n"
    "\n"
    "Which lines:\n"
    "  -b, --run RUN             of one run: 0 the present one, -1 the one before, 7 the one in last_7;\n"
    "                            of several: A..B, A.., ..B; all\n"
    "  -S, --since TIME          from then on: '2026-11-23 14:40[:55]', 14:40, -90m, -2h, -3d,\n"
    "  -U, --until TIME          up to then    today, yesterday, @SECONDS\n"
    "  -p, --priority PRIORITY   of this priority and above: v d i w e f s, or a word as warning,\n"
    "                            error, crit\n"
    "  -t, --tag TAG             of Android's log with this tag, or one like 'Cam*'\n"
    "  -k, --kernel              of the kernel\n"
    "  -a, --android             of Android's log\n"
    "  -g, --grep PATTERN        that hold the pattern (PCRE2), as a PATTERN without -g;\n"
    "                            a pattern without capitals finds them, too\n"
    "  -F, --fixed               the patterns are plain texts\n"
    "      --case WHICH          of letters: smart, sensitive, insensitive\n"
    "  -v, --invert              that hold no pattern\n"
    "  -n, --lines N             the last N of these\n"
    "  -A, --after N             and N lines behind each\n"
    "  -B, --before N            and N lines in front of each\n"
    "  -C, --context N           and N lines on either side\n"
    "Options of different kinds must all hold, of the same kind one of them. The service's own lines,\n"
    "which tell what was lost, are left out by -b, -S, -U and patterns alone.\n"
    "\n"
    "How shown:\n"
    "  -o, --output FORM         short (as stored), long, iso, json, otlp, html\n"
    "  -r, --reverse             newest lines first\n"
    "  -f, --follow              the last 10 lines, and new ones as they come\n"
    "      --color WHEN          by priority: auto, always, never\n"
    "      --no-pager            not through a pager\n"
    "\n"
    "Other things:\n"
    "      --list-runs           a list of the runs\n"
    "      --stats               counts of the lines, by run, source, priority and tag\n"
    "      --verify              checks the store, changes nothing\n"
    "      --bundle FILE.tar.gz  packs the store with all that helps to understand it\n"
    "  -h, --help                show this text\n"
    "  -V, --version             show the version\n"
    "\n"
    "Signals: SIGTERM, SIGINT and SIGHUP end -f in good order.\n"
    "Environment: VNLOG_SYSROOT as --sysroot; VNLOG_PAGER, PAGER the pager (less, more); NO_COLOR as\n"
    "--color never without --color; TMPDIR where bundles are opened (/tmp).\n"
    "Status: 0 lines were shown; 1 none; 2 wrong usage, no store, or no place for the output;\n"
    "3 the store is damaged: what can be read was shown.\n";

/** Options without a letter. */
enum Long { kCase = 256, kColour, kNoPager, kListRuns, kStatistics, kVerify, kBundle };

const option kOptions[] = {kHelpOption,
                           kVersionOption,
                           kSysrootOption,
                           {"directory", required_argument, nullptr, 'D'},
                           {"run", required_argument, nullptr, 'b'},
                           {"since", required_argument, nullptr, 'S'},
                           {"until", required_argument, nullptr, 'U'},
                           {"priority", required_argument, nullptr, 'p'},
                           {"tag", required_argument, nullptr, 't'},
                           {"kernel", no_argument, nullptr, 'k'},
                           {"android", no_argument, nullptr, 'a'},
                           {"grep", required_argument, nullptr, 'g'},
                           {"fixed", no_argument, nullptr, 'F'},
                           {"case", required_argument, nullptr, kCase},
                           {"invert", no_argument, nullptr, 'v'},
                           {"lines", required_argument, nullptr, 'n'},
                           {"after", required_argument, nullptr, 'A'},
                           {"before", required_argument, nullptr, 'B'},
                           {"context", required_argument, nullptr, 'C'},
                           {"output", required_argument, nullptr, 'o'},
                           {"reverse", no_argument, nullptr, 'r'},
                           {"follow", no_argument, nullptr, 'f'},
                           {"color", required_argument, nullptr, kColour},
                           {"no-pager", no_argument, nullptr, kNoPager},
                           {"list-runs", no_argument, nullptr, kListRuns},
                           {"stats", no_argument, nullptr, kStatistics},
                           {"verify", no_argument, nullptr, kVerify},
                           {"bundle", required_argument, nullptr, kBundle},
                           kEndOfOptions};
constexpr char kLetters[] = "D:b:S:U:p:t:kag:Fvn:A:B:C:o:rfhV";

int printHelp() {
    std::fputs(kHelp, stdout);
    return finishOutput(kViewer);
}

int wrongWord(const char* name, const char* expected) {
    return wrongUsage(std::string(name) + ": '" + optarg + "' is not " + expected);
}

int takeNumber(const char* name, std::optional<uint32_t>* number) {
    constexpr size_t kMostDigits = 9;
    std::string_view text = optarg;
    bool digits = !text.empty() && text.size() <= kMostDigits &&
                  std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
    if (!digits)
        return wrongWord(name, "a number of lines");
    *number = static_cast<uint32_t>(std::stoul(std::string(text)));
    return kGoOn;
}

int takeTime(const char* name, int64_t* nanoseconds) {
    return vnlog::parseTime(optarg, std::time(nullptr), nanoseconds)
               ? kGoOn
               : wrongWord(name, "a time, as '2026-11-23 14:40', 14:40, -90m, today or yesterday");
}

template <class T> struct Word {
    const char* word;
    T value;
};
constexpr Word<Colour> kColourWords[] = {
    {"auto", Colour::Auto}, {"always", Colour::Always}, {"never", Colour::Never}};
constexpr Word<vnlog::QueryOptions::Case> kCaseWords[] = {
    {"smart", vnlog::QueryOptions::Case::Smart},
    {"sensitive", vnlog::QueryOptions::Case::Sensitive},
    {"insensitive", vnlog::QueryOptions::Case::Insensitive}};

template <class T, size_t N>
int takeWord(const char* name, const Word<T> (&words)[N], const char* expected, T* value) {
    auto found = std::find_if(std::begin(words), std::end(words),
                              [](const Word<T>& known) { return std::string_view(known.word) == optarg; });
    if (found == std::end(words))
        return wrongWord(name, expected);
    *value = found->value;
    return kGoOn;
}

int takeTask(Task task, const char* name, ViewOptions* options) {
    if (options->task != Task::Lines && options->task != task)
        return wrongUsage(std::string(name) + " cannot be combined with another thing to do");
    options->task = task;
    return kGoOn;
}

int takeForm(ViewOptions* options) {
    options->formGiven = true;
    if (std::string_view(optarg) == "html")
        return takeTask(Task::Report, "-o html", options);
    if (options->task == Task::Report)
        options->task = Task::Lines; // the last one counts
    return vnlog::findOutputForm(optarg, &options->form)
               ? kGoOn
               : wrongWord("-o", "a form; there are short, long, iso, json, otlp and html");
}

/** Lines of context as given; `around` on the sides that are not. */
struct Context {
    std::optional<uint32_t> before, after, around;
};

/** The options that tell which lines. */
int takeLineOption(int choice, ViewOptions* options, Context* context) {
    vnlog::QueryOptions& query = options->query;
    switch (choice) {
    case 'S':
        return takeTime("-S", &query.since);
    case 'U':
        return takeTime("-U", &query.until);
    case 'p':
        return vnlog::findPriority(optarg, &query.priority)
                   ? kGoOn
                   : wrongWord("-p", "a priority; there are verbose, debug, info, warning, error and fatal");
    case 't':
        query.tags.emplace_back(optarg);
        return kGoOn;
    case 'k':
        query.kernel = true;
        return kGoOn;
    case 'a':
        query.android = true;
        return kGoOn;
    case 'g':
        query.patterns.emplace_back(optarg);
        return kGoOn;
    case 'F':
        query.fixed = true;
        return kGoOn;
    case 'v':
        query.invert = true;
        return kGoOn;
    case kCase:
        return takeWord("--case", kCaseWords, "smart, sensitive or insensitive", &query.letters);
    case 'n':
        return takeNumber("-n", &options->lines);
    case 'A':
        return takeNumber("-A", &context->after);
    case 'B':
        return takeNumber("-B", &context->before);
    case 'C':
        return takeNumber("-C", &context->around);
    default:
        return commonOption(choice, kViewer, printHelp);
    }
}

/** Notes an option that chooses lines, for whoever is to know later what was chosen. */
void noteSelection(int choice, std::string* selection) {
    constexpr std::string_view kChoosing = "bSUptkagvFn";
    if (choice > 0x7f || kChoosing.find(static_cast<char>(choice)) == kChoosing.npos)
        return;
    *selection += selection->empty() ? "-" : " -";
    *selection += static_cast<char>(choice);
    if (optarg != nullptr)
        *selection += std::string(" '") + optarg + "'";
}

int takeOption(int choice, ViewOptions* options, Context* context) {
    switch (choice) {
    case 'D':
        options->store = optarg;
        return *optarg != '\0' ? kGoOn : wrongWord("-D", "a path");
    case 'b':
        if (!options->runs.empty())
            return wrongUsage("-b is given twice; A..B names several runs");
        options->runs = optarg;
        return *optarg != '\0' ? kGoOn : wrongWord("-b", "a run");
    case 'o':
        return takeForm(options);
    case 'r':
        options->reverse = true;
        return kGoOn;
    case 'f':
        options->follow = true;
        return kGoOn;
    case kColour:
        return takeWord("--color", kColourWords, "auto, always or never", &options->colour);
    case kNoPager:
        options->pager = false;
        return kGoOn;
    case kListRuns:
        return takeTask(Task::Runs, "--list-runs", options);
    case kStatistics:
        return takeTask(Task::Statistics, "--stats", options);
    case kVerify:
        return takeTask(Task::Verify, "--verify", options);
    case kBundle:
        options->bundle = optarg;
        return takeTask(Task::Bundle, "--bundle", options);
    default:
        return takeLineOption(choice, options, context);
    }
}

const char* nameOf(Task task) {
    switch (task) {
    case Task::Lines:
        return "";
    case Task::Statistics:
        return "--stats";
    case Task::Report:
        return "-o html";
    case Task::Runs:
        return "--list-runs";
    case Task::Verify:
        return "--verify";
    case Task::Bundle:
        return "--bundle";
    }
    return "";
}

/** What following does not go with; null when nothing is wrong. */
const char* objectionToFollowing(const ViewOptions& options) {
    if (options.reverse)
        return "-f cannot be combined with -r: the newest line is never the last";
    if (options.task != Task::Lines)
        return "-f shows lines alone, as -o short, long, iso, json or otlp";
    if (!options.runs.empty() && options.runs != "0")
        return "-f follows the present run, -b is of no use with it";
    if (options.query.until != INT64_MAX)
        return "-f has no end, -U is of no use with it";
    return nullptr;
}

/** What does not go together; empty when all does. */
std::string objectionTo(const ViewOptions& options) {
    const vnlog::QueryOptions& query = options.query;
    if (options.follow)
        if (const char* objection = objectionToFollowing(options))
            return objection;
    if (options.lines == 0U && !options.follow)
        return "-n 0 shows nothing";
    if (query.since > query.until)
        return "-S (--since) is later than -U (--until)";
    if (query.invert && query.patterns.empty())
        return "-v leaves out what matches a pattern, and there is none";
    if ((query.fixed || query.letters != vnlog::QueryOptions::Case::Smart) && query.patterns.empty())
        return std::string(query.fixed ? "-F" : "--case") + " is about patterns, and there is none";
    bool context = options.before > 0 || options.after > 0;
    if (options.task != Task::Lines && (context || options.reverse))
        return std::string(options.reverse ? "-r" : "-A, -B and -C") + " cannot be combined with " +
               nameOf(options.task);
    if (options.task == Task::Statistics && options.formGiven)
        return "--stats has a form of its own, -o is of no use with it";
    if (options.task == Task::Lines || options.task == Task::Statistics || options.task == Task::Report)
        return {};
    bool filtered = query.kernel || query.android || query.priority != 0 || !query.tags.empty() ||
                    !query.patterns.empty() || options.lines.has_value() || options.formGiven;
    bool timed = query.since != INT64_MIN || query.until != INT64_MAX || !options.runs.empty();
    if (filtered || (timed && options.task != Task::Runs))
        return std::string(nameOf(options.task)) + " is about whole runs: nothing can be chosen with it" +
               (options.task == Task::Runs ? " but -b, -S and -U" : "");
    return {};
}

} // namespace

int wrongUsage(const std::string& what) {
    std::fprintf(stderr, "%s: %s\n", kViewer, what.c_str());
    return hintAtHelp(kViewer);
}

int readCommandLine(int argc, char** argv, ViewOptions* options) {
    Context context;
    int status = kGoOn;
    for (int choice;
         status == kGoOn && (choice = getopt_long(argc, argv, kLetters, kOptions, nullptr)) != -1;) {
        status = takeOption(choice, options, &context);
        noteSelection(choice, &options->selection);
    }
    if (status != kGoOn)
        return status == kFailure ? kWrongUsage : status;
    options->query.patterns.insert(options->query.patterns.end(), argv + optind, argv + argc);
    for (int i = optind; i < argc; ++i)
        options->selection += std::string(options->selection.empty() ? "'" : " '") + argv[i] + "'";
    options->before = context.before.value_or(context.around.value_or(0));
    options->after = context.after.value_or(context.around.value_or(0));
    std::string objection = objectionTo(*options);
    return objection.empty() ? kGoOn : wrongUsage(objection);
}
