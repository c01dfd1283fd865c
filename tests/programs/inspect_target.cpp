// SPDX-License-Identifier: MIT
//
// A process for views of what a process tells about itself. Its second argument is a name that it gives
// itself, and the first one says how it tells:
//
//     listings   its library has no word inspect
//     objects    inspect answers with objects made up for the occasion
#include <cstdio>
#include <cstring>
#include <string>

#include <pthread.h>

#include <orn/zel.hpp>

namespace {

using namespace orn::zel;

void made_up(std::string const& what, int fd) {
    std::string const head = "{\"inspect\":\"" + what + "\",";
    std::string text;
    if (what == "alarms") {
        text = head + "\"alarm\":7,\"thread\":12345,\"due_in_ms\":40,\"period_ms\":null}\n" + head +
               "\"alarm\":123,\"thread\":9,\"due_in_ms\":1,\"fired\":3}\n{\"end\":true,\"objects\":2,"
               "\"lost\":0}\n";
    } else if (what == "tasks") {
        text =
            head +
            "\"task\":1,\"name\":\"a\\tb\\u001b[2J\"}\nno object\n{\"end\":true,\"objects\":9,\"lost\":8}\n";
    } else if (what == "process") {
        text = head + "\"pid\":1,\"words\":[{\"word\":\"station\",\"library\":\"libx.so\"}]}\n"
                      "{\"end\":true,\"objects\":1,\"lost\":0}\n";
    } else {
        text = head + "\"error\":\"no such thing to inspect\",\"known\":[\"alarms\"]}\n{\"end\":true}\n";
    }
    cmd::Write(fd, text);
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "objects") == 0)
        RegisterCommandModule("inspect", made_up);
    else
        UnregisterCommandModule("inspect");
    if (argc > 2)
        pthread_setname_np(pthread_self(), argv[2]);
    std::puts("ready");
    std::fflush(stdout);
    for (;;)
        RunOnce(-1);
}
