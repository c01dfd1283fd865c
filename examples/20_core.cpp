// SPDX-License-Identifier: MIT
//
// Shows the building blocks: a lock for a scope, identifiers, fields of a text, a value that may be missing.
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <orn/zel.hpp>

int main() {
    // [use]
    orn::zel::ThreadMutex mutex;
    std::map<orn::zel::id_t, std::string> table;
    std::vector<std::string> fields;
    orn::zel::split("red:green;blue", ":;", fields);
    for (std::string const& field : fields) {
        orn::zel::AutoLock const guard(mutex);
        table[orn::zel::unique_id()] = field;
    }
    // [/use]
    for (auto const& entry : table)
        std::printf("%s\n", entry.second.c_str());

    orn::zel::PossiblyUndefined<int> answer;
    try {
        std::printf("%d\n", answer.value());
    } catch (orn::zel::UndefinedValue const& error) {
        std::printf("asked too early: %s\n", error.what());
    }
    answer = 42;
    std::printf("%d\n", answer.value());
    return 0;
}
