// SPDX-License-Identifier: MIT
//
// A conversation: attaching, waiting, commands and their answers.
#include "Session.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include <unistd.h>

#include "Failure.hpp"
#include "Output.hpp"
#include "Target.hpp"

namespace zelctl {

namespace {

unsigned long const look_around_ms = 250;

std::string echo_of(std::string const& command) {
    return "received \"" + command + "\"";
}

// A command may hold newlines.
std::vector<std::string> lines_of(std::string const& text) {
    std::vector<std::string> lines(1);
    for (char const letter : text) {
        if (letter == '\n')
            lines.emplace_back();
        else
            lines.back() += letter;
    }
    return lines;
}

// Whether a word that nobody has would be answered like this. A command that begins with a number asks for
// its echo, so it is none of those.
bool is_echo(Answer const& answer, std::string const& command) {
    bool const number = !command.empty() && command[0] >= '0' && command[0] <= '9';
    std::vector<std::string> const lines = lines_of("1/1 " + command);
    return !number && answer.lines == lines.size() && answer.first == lines.front();
}

// The process does not send more numbered lines than the pipe has room for.
bool is_cut(Answer const& answer, std::string const& command) {
    unsigned long const asked = std::strtoul(command.c_str(), nullptr, 10);
    return command[0] >= '0' && command[0] <= '9' && answer.lines < asked &&
           answer.first == "1/" + std::to_string(asked) + ' ' + command;
}

} // namespace

std::vector<std::string> words_of(std::string const& command) {
    std::vector<std::string> words;
    for (std::string rest = command; !rest.empty();) {
        // The library's own function, so that the process and this tool never read a command differently.
        std::pair<std::string, std::string> split = orn::zel::cmd::GetFirstWord(rest);
        if (!split.first.empty())
            words.push_back(split.first);
        rest.swap(split.second);
    }
    return words;
}

Session::Session(Target const& target, Output& output, double seconds)
    : target_(target), output_(output), seconds_(seconds), mark_("zelctl-" + std::to_string(getpid()) + '-'),
      channel_(target.pid(), [this](std::string const& line) { take_line(line); }) {
    if (target.descriptor() != -1) {
        end_receptor_.reset(new orn::zel::fd::AutoReceptor(target.descriptor(), [this](orn::zel::fd::Event*) {
            ended_ = true;
            end_receptor_.reset(); // the descriptor stays readable
        }));
    }
    // A signal may come just before the loop sleeps, and some ends have no descriptor: both are seen then.
    tick_.reset(new orn::zel::Alarm(look_around_ms, look_around_ms, [this] {
        ended_ = ended_ || (target_.descriptor() == -1 && target_.ended());
    }));
}

Session::~Session() = default;

// ---- Waiting --------------------------------------------------------------------------------------------

Session::Limit::Limit(Session& session) : session_(session) {
    if (session_.limits_++ > 0)
        return;
    session_.timed_out_ = false;
    session_.reason_.clear();
    session_.limit_.reset(new orn::zel::Alarm(static_cast<unsigned long>(session_.seconds_ * 1000),
                                              [&session] { session.timed_out_ = true; }));
    session_.note_.reset(new orn::zel::Alarm(1000, [&session] {
        if (!session.noted_ && isatty(STDERR_FILENO) != 0) {
            std::fprintf(stderr, "zelctl: waiting for %s: %s\n", session.target_.name().c_str(),
                         session.silence().c_str());
        }
        session.noted_ = true;
    }));
}

Session::Limit::~Limit() {
    if (--session_.limits_ > 0)
        return;
    session_.timed_out_ = false;
    session_.limit_.reset();
    session_.note_.reset();
}

std::string Session::silence() const {
    return reason_.empty() ? target_.why_silent(channel_.connected(), send_error_) : reason_;
}

void Session::check() {
    output_.check();
    if (!timed_out_)
        return;
    std::ostringstream text;
    text << target_.name() << " has not answered within " << seconds_ << " s: " << silence();
    throw Failure(zelctl::timed_out, text.str());
}

void Session::turn(long ms) {
    orn::zel::RunOnce(ms);
    output_.flush();
    check();
}

void Session::follow_turn(long ms) {
    orn::zel::RunOnce(output_.waiting() ? 20 : ms);
    output_.flush_some();
    check();
}

void Session::pause(unsigned long ms) {
    bool over = false;
    orn::zel::Alarm const end(ms, [&] { over = true; });
    while (!over && !ended())
        turn();
}

void Session::drain() {
    while (orn::zel::RunOnce(0) > 0) {
    }
    output_.flush();
}

// ---- Attaching ------------------------------------------------------------------------------------------

// A process whose channel is open needs no signal. Any other one is signalled as soon as that is safe, and
// again only when it has called exec(), which is looked for now and then. One that never rests is not in
// exec() all the time.
void Session::connect() {
    Limit const limit(*this);
    unsigned const seldom = 25;
    unsigned const patience = 30;
    std::optional<std::string> told;
    for (unsigned attempt = 0; !channel_.connect(); ++attempt) {
        send_error_ = errno;
        if (ended())
            throw Failure(not_attachable, target_.name() + " has ended");
        if (send_error_ == EACCES) {
            throw Failure(not_permitted, "the socket @orn.msg.cmd." + std::to_string(target_.pid()) +
                                             " is not that of " + target_.name() +
                                             ": see who listens there (ss -xlp)");
        }
        if (send_error_ == ECONNREFUSED && (!told || attempt % seldom == 0))
            target_.raise_signal(told, attempt < patience);
        turn(10);
    }
    send_error_ = 0;
    // The kernel has told the id of the queue's process. It still belongs to the one that was looked at.
    target_.make_sure_it_is_the_same();
}

// ---- Commands and answers -------------------------------------------------------------------------------

void Session::send(std::string const& command) {
    while (!channel_.command(command)) {
        send_error_ = errno;
        if (send_error_ == EAGAIN) { // its queue is full
            turn(0);
            continue;
        }
        // A process that ends closes its queue a moment before the kernel says that it has ended. A message
        // that was on its way then finds a broken pipe.
        bool const gone = send_error_ == ECONNREFUSED || send_error_ == EPIPE || send_error_ == ECONNRESET;
        std::string const why = gone && target_.ended(100) ? " has ended"
                                : gone                     ? " takes no more commands: it has unloaded zel"
                                       : std::string(" does not take the command: ") + strerror(send_error_);
        throw Failure(gone ? connection_lost : refused, target_.name() + why);
    }
    send_error_ = 0;
}

void Session::tell(std::string const& command) {
    if (channel_.connected() && !ended() && channel_.command(command))
        expect_echo(command);
}

void Session::expect_echo(std::string const& command) {
    for (std::string const& line : lines_of(echo_of(command)))
        echoes_.insert(line);
}

// Commands are served in order. So once the process has echoed another command, it has answered those before.
void Session::wait_for_answer() {
    std::string const mark = mark_ + std::to_string(++marks_);
    end_ = echo_of(mark);
    complete_ = false;
    send(mark);
    // A full pipe may have lost the mark's echo, so ask again.
    orn::zel::Alarm const again(look_around_ms, look_around_ms, [&] { channel_.command(mark); });
    while (!complete_) {
        follow_turn(); // lines of a monitor may come meanwhile, more than their reader takes
        if (!ended())
            continue;
        drain();
        if (!complete_) {
            throw Failure(connection_lost, target_.name() + " has " +
                                               (target_.ended(100) ? "ended" : "closed its channel") +
                                               ", perhaps in the middle of the answer");
        }
    }
}

Answer Session::ask(std::string const& command, Sink const& sink) {
    return ask(std::vector<std::string>{command}, sink);
}

Answer Session::ask(std::vector<std::string> const& commands, Sink const& sink) {
    Answer answer;
    stale_ = !complete_; // an interrupted answer may still be coming
    begun_ = false;
    begin_ = lines_of(echo_of(commands[0])).back();
    unsigned long const before = overflows();
    // However the wait ends, what the sink refers to is the caller's.
    struct Listening {
        ~Listening() { session.sink_ = nullptr; }
        Session& session;
    } const listening{*this};
    sink_ = [&answer, &sink](std::string const& line) {
        if (++answer.lines == 1)
            answer.first = line;
        answer.last = line;
        sink(line);
    };
    Limit const limit(*this);
    for (std::string const& command : commands) {
        expect_echo(command);
        send(command);
    }
    wait_for_answer();
    answer.echoed = commands.size() == 1 && is_echo(answer, commands[0]);
    answer.lost = lost_since(before) || (commands.size() == 1 && is_cut(answer, commands[0]));
    return answer;
}

void Session::take_line(std::string const& line) {
    if (line.compare(0, 4 + mark_.size(), "1/1 " + mark_) == 0)
        return;
    // When an answer has no newline at its end the mark's echo comes on the same line.
    std::string const echo = "received \"" + mark_;
    std::string::size_type const at = line.find(echo);
    Sink const& sink = begun_ && sink_ ? sink_ : stream_;
    if (at != std::string::npos) {
        if (at > 0 && !stale_ && sink)
            sink(line.substr(0, at));
        complete_ = complete_ || line.compare(at, std::string::npos, end_) == 0;
        stale_ = false;
        return;
    }
    auto const expected = echoes_.find(line);
    if (expected != echoes_.end()) {
        echoes_.erase(expected);
        begun_ = begun_ || line == begin_;
        stale_ = stale_ && line != begin_;
    } else if (!stale_ && sink) {
        sink(line);
    }
}

} // namespace zelctl
