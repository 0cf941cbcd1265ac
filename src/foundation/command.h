// Running the system's tools.
//
// Who may include this: every area. Nothing else forks.
//
// Commands with data in them are argument vectors and see no shell; only the fixed pipelines of the metrics
// (and exec(), whose caller owns the whole command line) go through "/bin/sh -c". Children get no descriptor
// of ours but 0 to 2, default signal handling and an empty signal mask, and a process group of their own. A
// child that is waited for on a worker thread is killed with its group when that worker is asked to stop, and
// so is one whose waiting thread the daemon cancels. Threading: any thread.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace corvo {

// A wait status as waitpid gives it (0: the tool ran and exited 0), or -1 when it could not be started. A
// daemon that ignores SIGCHLD takes the status from us: the command then counts as successful.
int run_command(const std::vector<std::string>& argv);

// The same with standard output and error thrown away.
int run_command_quiet(const std::vector<std::string>& argv);

// For a tool that others wait behind: killed when it takes longer than `limit`, and by nothing else, so that
// a worker's stop does not cut its work short.
int run_command_within(const std::vector<std::string>& argv, std::chrono::milliseconds limit);

// "/bin/sh -c text", for fixed texts only.
int run_shell(const std::string& text);

// Runs "/bin/sh -c text" and collects its standard output. False: the pipe or the child could not be made. A
// child that writes more than `limit` bytes then finds nobody reading.
bool capture_shell(const std::string& text, std::string& output, std::size_t limit = 16U << 20);

// The same, but only the first line (its line break included) or as much of it as `limit` bytes hold; the
// child then finds nobody reading.
bool capture_shell_line(const std::string& text, std::string& line, std::size_t limit);

// The same for an argument vector.
bool capture_command(const std::vector<std::string>& argv, std::string& output,
                     std::size_t limit = 16U << 20);

// `text` cut into words at blanks and tabs, as a shell would cut an unquoted text, without interpreting
// anything.
std::vector<std::string> split_words(std::string_view text);

}  // namespace corvo
