// SPDX-License-Identifier: MIT
//
// Reads what the kernel tells of this process in /proc. Internal. Without /proc everything is empty.
#ifndef ZEL_SRC_PROCFILE_HPP
#define ZEL_SRC_PROCFILE_HPP

#include <set>
#include <string>
#include <vector>

namespace orn::zel::detail {

// The path goes on from "/proc/self/". Empty when the file cannot be read.
std::string read_proc(char const* path);

// The same without the end of its one line.
std::string line_in_proc(char const* path);

// Where to look for what all threads share: the mappings, the program, the descriptors. The kernel shows them
// for the process only for as long as its main thread lives, and for each other thread after that.
std::string shared_in_proc(std::string const& path);

// What a symbolic link there points to. Empty when there is none.
std::string link_in_proc(char const* path);

// All threads.
std::set<int> thread_ids();

// The fields of a thread's or the process's "stat" from the third one on, which is the state. The name before
// it may hold anything, and is not there.
std::vector<std::string> stat_fields(char const* path);

} // namespace orn::zel::detail

#endif
