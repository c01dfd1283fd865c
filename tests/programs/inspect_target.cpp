// SPDX-License-Identifier: MIT
//
// A process for views of what a process tells about itself. Its second argument is a name that it gives
// itself, and the first one says how it tells:
//
//     listings   its library has no word inspect
//     objects    inspect answers with objects made up for the occasion
//     works      as it is; the loop does what the word "work" says, see Worker
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <orn/os/Pipe.hpp>

#include <orn/zel.hpp>

namespace {

using namespace orn::zel;

std::string members(int from, int to) {
    std::string text = "\"first\":0";
    for (; from < to; ++from)
        text += ",\"m" + std::to_string(from) + "\":" + std::to_string(from);
    return text + "}\n";
}

void made_up(std::string const& what, int fd) {
    std::string const head = "{\"inspect\":\"" + what + "\",";
    std::string text;
    if (what == "alarms") {
        text = head + "\"alarm\":7,\"thread\":12345,\"due_in_ms\":40,\"period_ms\":null}\n" + head +
               "\"alarm\":123,\"thread\":9,\"due_in_ms\":1,\"fired\":3}\n{\"end\":true,\"objects\":2,"
               "\"lost\":0}\n";
    } else if (what == "tasks") {
        text = head + "\"task\":1,\"name\":\"a\\tb\\u001b[2J\"}\nno object\n" + head +
               "\"task\":" + std::string(200000, '[') + std::string(200000, ']') + "}\n" + head +
               members(0, 2000) + "{\"end\":true,\"objects\":9,\"lost\":8}\n";
    } else if (what == "signals") {
        text = head + members(0, 50) + head + members(50, 100) + "{\"end\":true}\n";
    } else if (what == "timing on") {
        text = head + "\"error\":\"not enough memory\",\"timing\":\"off\"}\n{\"end\":true}\n";
    } else if (what == "process") {
        text = head + "\"pid\":1,\"words\":[{\"word\":\"station\",\"library\":\"libx.so\"}]}\n"
                      "{\"end\":true,\"objects\":1,\"lost\":0}\n";
    } else {
        text = head + "\"error\":\"no such thing to inspect\",\"known\":[\"alarms\"]}\n{\"end\":true}\n";
    }
    cmd::Write(fd, text);
}

// "work N": N slices of a task with a name, an alarm and a signal, and "worked" when all have been. "work 0":
// stays in a handler until the word comes again.
class Worker {
public:
    Worker()
        : pipe_(false), wake_(pipe_.ReadFD(), [this](fd::Event*) { serve(); }),
          signal_(SIGUSR1, [this](int) { done(); }) {
        RegisterCommandModule("work", [this](std::string const& slices, int) {
            slices_ = std::atoi(slices.c_str());
            static_cast<void>(!write(pipe_.WriteFD(), "w", 1));
        });
    }

private:
    void serve() {
        char byte;
        static_cast<void>(!read(pipe_.ReadFD(), &byte, 1));
        if (slices_ == 0) {
            pollfd next = {pipe_.ReadFD(), POLLIN, 0};
            poll(&next, 1, -1);
            return;
        }
        left_ = 3;
        alarm_.reset(new orn::zel::Alarm(1, [this] { done(); }));
        raise(SIGUSR1);
        task_.reset(new Task([this](task::Controller* self) {
            if (--slices_ == 0) {
                self->Complete();
                done();
            }
        }));
        task_->Name("work");
        task_->Run();
    }
    void done() {
        if (--left_ > 0)
            return;
        std::puts("worked");
        std::fflush(stdout);
    }

    orn::os::Pipe const pipe_;
    fd::AutoReceptor const wake_;
    signal::AutoReceptor const signal_;
    std::unique_ptr<orn::zel::Alarm> alarm_;
    std::unique_ptr<Task> task_;
    std::atomic<int> slices_{0};
    int left_ = 0;
};

} // namespace

int main(int argc, char** argv) {
    std::unique_ptr<Worker> worker;
    if (argc > 1 && std::strcmp(argv[1], "objects") == 0)
        RegisterCommandModule("inspect", made_up);
    else if (argc > 1 && std::strcmp(argv[1], "works") == 0)
        worker.reset(new Worker);
    else
        UnregisterCommandModule("inspect");
    if (argc > 2)
        pthread_setname_np(pthread_self(), argv[2]);
    // GCC's ThreadSanitizer may lose a signal that comes in a thread's first blocking call.
    poll(nullptr, 0, 0);
    std::puts("ready");
    std::fflush(stdout);
    for (;;)
        RunOnce(-1);
}
