// SPDX-License-Identifier: MIT
//
// The client of the command channel; see Programs.hpp. Uses the library.
#include "Programs.hpp"

#include <algorithm>

#include <orn/zel.hpp>

namespace support {

struct Client::State {
    explicit State(pid_t pid)
        : channel(orn::zel::Connect(pid, [this](std::string const& line) { lines.push_back(line); })) {}

    Words lines;
    unsigned asked = 0;
    orn::zel::cmd::Channel channel;
};

Client::Client(pid_t pid) : state_(new State(pid)) {}

Client::~Client() {
    delete state_;
}

ssize_t Client::send(std::string const& command) {
    return state_->channel.Command(command);
}

Words Client::ask(std::string const& command) {
    // Commands are served in order, so the answer has ended when the next command is echoed.
    std::string const mark = "0 mark " + std::to_string(++state_->asked);
    Words& lines = state_->lines;
    lines.clear();
    if (send(command) < 0 || send(mark) < 0)
        return Words{"not sent"};
    Words::iterator end;
    // An answer that fills the pipe may cost the mark its echo. Then it is sent again.
    orn::zel::Alarm const again(250, 250, [&] { send(mark); });
    auto const answered = [&] {
        end = std::find(lines.begin(), lines.end(), "received \"" + mark + "\"");
        return end != lines.end();
    };
    if (!wait_until(answered, 10000, [] { orn::zel::RunOnce(20); }))
        return Words{"no answer"};
    Words answer(lines.begin(), end);
    // The echo of an earlier question's mark may come this late when that was sent twice.
    auto const echo = [&](std::string const& line) {
        return line == "received \"" + command + "\"" || line.compare(0, 17, "received \"0 mark ") == 0;
    };
    answer.erase(std::remove_if(answer.begin(), answer.end(), echo), answer.end());
    return answer;
}

std::string Client::ask_one(std::string const& command) {
    Words const answer = ask(command);
    return answer.size() == 1 ? answer[0] : std::to_string(answer.size()) + " lines";
}

} // namespace support
