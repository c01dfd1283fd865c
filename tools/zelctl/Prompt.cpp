// SPDX-License-Identifier: MIT
//
// The prompt, by libedit. While it waits for a key the loop turns, so that the end of the process is noticed.
#include "Prompt.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <exception>
#include <filesystem>
#include <memory>
#include <set>
#include <system_error>

#include <unistd.h>

#ifdef ZELCTL_WITH_EDIT
#include <histedit.h>
#endif

#include "Output.hpp"
#include "Target.hpp"

namespace zelctl {

#ifdef ZELCTL_WITH_EDIT

namespace {

class Prompt {
public:
    explicit Prompt(Context& context);
    Prompt(Prompt const&) = delete;
    Prompt& operator=(Prompt const&) = delete;

    // The next line without its newline. False at the end of the input.
    bool read(std::string& line);

private:
    static Prompt& of(EditLine* edit);
    static char* text(EditLine* edit);
    static int get_key(EditLine* edit, wchar_t* key);
    static unsigned char complete(EditLine* edit, wint_t key);
    static bool is_about(Words const& command, std::set<std::string> const& these);
    static Words files(std::string const& begun);
    bool wait_for_key();
    Words first_words();
    Words completions(std::string const& begun, Words const& before);

    Context& context_;
    std::string const prompt_;
    std::string const history_file_;
    Words words_;                // of the process; asked for once
    std::exception_ptr failure_; // kept while libedit's frames, which are plain C, are left
    std::unique_ptr<History, void (*)(History*)> history_;
    std::unique_ptr<EditLine, void (*)(EditLine*)> edit_;
};

std::string history_file() {
    char const* const given = std::getenv("ZELCTL_HISTORY");
    char const* const home = std::getenv("HOME");
    if (given)
        return given;
    return home && *home != '\0' ? std::string(home) + "/.zelctl_history" : "";
}

Prompt::Prompt(Context& context)
    : context_(context), prompt_(printable(context.session.target().process().name) + ' ' +
                                 std::to_string(context.session.target().pid()) + "> "),
      history_file_(history_file()), history_(history_init(), history_end),
      edit_(el_init("zelctl", stdin, stdout, stderr), el_end) {
    if (!edit_ || !history_)
        throw Failure(refused, std::string("no prompt on this terminal: ") + strerror(errno));
    HistEvent event;
    int const remembered = 500;
    history(history_.get(), &event, H_SETSIZE, remembered);
    history(history_.get(), &event, H_SETUNIQUE, 1);
    if (!history_file_.empty())
        history(history_.get(), &event, H_LOAD, history_file_.c_str());
    el_set(edit_.get(), EL_CLIENTDATA, this);
    el_set(edit_.get(), EL_PROMPT, text);
    el_set(edit_.get(), EL_EDITOR, "emacs");
    el_set(edit_.get(), EL_SIGNAL, 1); // Ctrl-Z gives the terminal back, and coming back takes it again
    el_set(edit_.get(), EL_HIST, ::history, history_.get());
    el_set(edit_.get(), EL_GETCFN, get_key);
    el_wset(edit_.get(), EL_ADDFN, L"complete-word", L"Completes a word", complete); // el_set() leaks copies
    el_set(edit_.get(), EL_BIND, "^I", "complete-word", nullptr);
    el_set(edit_.get(), EL_BIND, "^R", "em-inc-search-prev", nullptr);
    el_source(edit_.get(), nullptr); // the user's own ~/.editrc
}

Prompt& Prompt::of(EditLine* edit) {
    void* self = nullptr;
    el_get(edit, EL_CLIENTDATA, &self);
    return *static_cast<Prompt*>(self);
}

char* Prompt::text(EditLine* edit) {
    return const_cast<char*>(of(edit).prompt_.c_str()); // only read
}

// False when there will be none: see failure_.
bool Prompt::wait_for_key() {
    Session& session = context_.session;
    bool typed = false;
    try {
        orn::zel::fd::AutoReceptor const keys(STDIN_FILENO, [&](orn::zel::fd::Event*) { typed = true; });
        while (!typed) {
            session.turn();
            if (session.ended())
                throw Failure(connection_lost, session.target().name() + " has ended");
        }
    } catch (...) {
        failure_ = std::current_exception();
        return false;
    }
    return true;
}

int Prompt::get_key(EditLine* edit, wchar_t* key) {
    Prompt& self = of(edit);
    char byte = 0;
    mbstate_t state = {};
    for (;;) {
        if (!self.wait_for_key())
            return -1;
        ssize_t const got = ::read(STDIN_FILENO, &byte, 1);
        if (got == 0)
            return 0;
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return -1;
        // -2: the character goes on with the next byte. What is none is left out.
        std::size_t const length = mbrtowc(key, &byte, 1, &state);
        if (length == 1 || length == 0)
            return 1;
        if (length == static_cast<std::size_t>(-1))
            state = {};
    }
}

Words Prompt::first_words() {
    Words candidates = {"help", "quit"};
    for (Verb const& verb : verbs())
        candidates.push_back(verb.word);
    if (words_.empty())
        words_ = command_words(context_);
    candidates.insert(candidates.end(), words_.begin(), words_.end());
    return candidates;
}

// Whether the command is one of these, also behind zel.
bool Prompt::is_about(Words const& command, std::set<std::string> const& these) {
    std::size_t const at = command[0] == "zel" && command.size() > 1 ? 1 : 0;
    return these.count(command[at]) != 0;
}

// Those in the directory of the path that has been begun, but for names that a command or a terminal cannot
// take.
Words Prompt::files(std::string const& begun) {
    std::string const directory = begun.substr(0, begun.rfind('/') + 1);
    Words paths;
    std::error_code error;
    std::filesystem::directory_iterator it(directory.empty() ? "." : directory, error);
    for (std::filesystem::directory_iterator const end; !error && it != end; it.increment(error)) {
        std::string const path = directory + it->path().filename().string();
        std::error_code unknown;
        if (path.find(' ') == std::string::npos && printable(path) == path)
            paths.push_back(it->is_directory(unknown) ? path + '/' : path);
    }
    return paths;
}

// before: the words in front of the one that has been begun.
Words Prompt::completions(std::string const& begun, Words const& before) {
    Words candidates;
    if (before == Words{"zel"})
        candidates = words_of_zel();
    else if (before == Words{"inspect"})
        candidates = {"process", "groups", "threads", "fds", "alarms", "tasks", "signals", "trace", "timing"};
    else if (before.empty())
        candidates = first_words();
    else if (is_about(before, {"load", "unload"}) || before.back() == "-o")
        candidates = files(begun);
    else if (is_about(before, {"monitor", "unmonitor"}))
        candidates = {"poll", "thread", "task", "alarm"};
    std::sort(candidates.begin(), candidates.end());
    candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
    candidates.erase(
        std::remove_if(candidates.begin(), candidates.end(),
                       [&](std::string const& word) { return word.compare(0, begun.size(), begun) != 0; }),
        candidates.end());
    return candidates;
}

unsigned char Prompt::complete(EditLine* edit, wint_t) {
    Prompt& self = of(edit);
    LineInfo const* const line = el_line(edit);
    std::string const before(line->buffer, line->cursor);
    std::size_t const blank = before.rfind(' ');
    std::string const begun = before.substr(blank == std::string::npos ? 0 : blank + 1);
    Words const words = words_of(before.substr(0, before.size() - begun.size()));
    Words found;
    try {
        found = self.completions(begun, words);
    } catch (...) {
        self.failure_ = std::current_exception();
        return CC_EOF;
    }
    if (found.empty())
        return CC_ERROR;
    // What all of them have in common; they are in order, so the first and the last one tell.
    std::string const& low = found.front();
    std::string const& high = found.back();
    std::size_t common = 0;
    while (common < std::min(low.size(), high.size()) && low[common] == high[common])
        ++common;
    bool const whole = found.size() == 1 && low.back() != '/';
    std::string const added = low.substr(0, common).substr(begun.size()) + (whole ? " " : "");
    if (!added.empty())
        return el_insertstr(edit, added.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
    std::printf("\n%s\n", printable(joined(found, "  ")).c_str());
    return CC_REDISPLAY;
}

bool Prompt::read(std::string& line) {
    int length = 0;
    errno = 0;
    char const* const typed = el_gets(edit_.get(), &length);
    if (failure_) {
        std::exception_ptr const failure = failure_;
        failure_ = nullptr;
        el_reset(edit_.get());
        std::rethrow_exception(failure);
    }
    if (!typed || length < 1)
        return false;
    line.assign(typed, static_cast<std::size_t>(length));
    while (!line.empty() && line.back() == '\n')
        line.pop_back();
    if (line.find_first_not_of(' ') == std::string::npos)
        return true;
    HistEvent event;
    history(history_.get(), &event, H_ENTER, line.c_str());
    if (!history_file_.empty())
        history(history_.get(), &event, H_SAVE, history_file_.c_str());
    return true;
}

} // namespace

ExitStatus prompt(Context& context, std::function<ExitStatus(std::string const&)> const& carry_out,
                  std::function<void()> const& forget_signal) {
    Prompt prompt(context);
    std::printf("Attached to %s. help lists the words, Ctrl-D leaves.\n",
                context.session.target().name().c_str());
    std::fflush(stdout);
    for (std::string line;;) {
        try {
            if (!prompt.read(line))
                break;
            Words const words = words_of(line);
            if (words == Words{"quit"} || words == Words{"exit"})
                return ok;
            if (words == Words{"help"})
                std::printf("%s", list_of_verbs().c_str());
            else if (!words.empty())
                carry_out(line);
        } catch (Interrupted const& interrupted) {
            if (interrupted.signo != SIGINT)
                throw;
            forget_signal(); // Ctrl-C gives up the command, or the line
            context.output.discard();
            std::printf("\n");
        }
        std::fflush(stdout);
    }
    std::printf("\n");
    return ok;
}

#else

ExitStatus prompt(Context&, std::function<ExitStatus(std::string const&)> const&,
                  std::function<void()> const&) {
    throw Failure(misused, "this zelctl was built without libedit and has no prompt: give a command, "
                           "behind the process, with -c or on standard input");
}

#endif

} // namespace zelctl
