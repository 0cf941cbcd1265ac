#include "support/recorder.h"

#include <json/reader.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>

#include "support/files.h"
#include "support/isolation.h"
#include "support/process.h"
#include "support/real_root.h"
#include "support/wait.h"

namespace corvo::test {

namespace {

namespace fs = std::filesystem;

const std::string kOrders = CORVO_RECORDER_ORDERS;
const std::string kJournal = kOrders + "/journal";

// The replaced tools by folder, and the folders that have a layer of ours.
std::map<std::string, std::set<std::string>> tools;
std::set<std::string> layered;
int layers = 0;

std::string orders_folder(const std::string& path) {
    std::string name = merged(path).substr(1);
    std::replace(name.begin(), name.end(), '/', '!');
    return kOrders + "/" + name;
}

// Lays the folder's layer anew, with a link to the recorder for each replaced tool.
void lay(const std::string& folder) {
    if (layered.erase(folder) != 0) ::umount2(folder.c_str(), MNT_DETACH);
    const auto& names = tools[folder];
    if (names.empty()) return;
    isolation::overlay(folder, "layer" + std::to_string(layers++));
    layered.insert(folder);
    for (const auto& name : names) {
        const std::string link = folder + "/" + name;
        ::unlink(link.c_str());
        isolation::check(::symlink(CORVO_RECORDER_TOOL, link.c_str()) == 0, "link " + link);
    }
}

std::string pair(const std::string& word, const std::string& value) {
    return word + '\0' + value + '\0';
}

RecordedCall to_call(const Json::Value& entry) {
    RecordedCall call;
    for (const auto& word : entry["argv"]) call.argv.push_back(word.asString());
    call.path = entry["path"].asString();
    call.time = std::chrono::nanoseconds(entry["time"].asInt64());
    call.pid = entry["pid"].asInt();
    call.blocked_signals = entry["held"].asBool();
    for (const auto& fd : entry["fds"]) call.descriptors.push_back(fd.asInt());
    return call;
}

std::vector<RecordedCall> read_journal(const std::string& tool) {
    std::vector<RecordedCall> calls;
    if (::access(kJournal.c_str(), R_OK) != 0) return calls;
    std::istringstream lines(read_file(kJournal));
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    for (std::string line; std::getline(lines, line);) {
        Json::Value entry;
        std::string errors;
        if (!reader->parse(line.data(), line.data() + line.size(), &entry, &errors))
            throw std::runtime_error("bad journal line: " + line);
        if (tool.empty() || entry["tool"].asString() == tool) calls.push_back(to_call(entry));
    }
    std::stable_sort(calls.begin(), calls.end(), [](auto& a, auto& b) { return a.time < b.time; });
    return calls;
}

std::vector<std::string> texts(const std::vector<RecordedCall>& calls) {
    std::vector<std::string> all;
    for (const auto& call : calls) all.push_back(call.command());
    return all;
}

// Ends the recorders that still run (hanging ones).
void end_running() {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        if (fs::read_symlink(entry.path() / "exe", error) == fs::path(CORVO_RECORDER_TOOL))
            ::kill(std::atoi(entry.path().filename().c_str()), SIGKILL);
    }
}

}  // namespace

std::string RecordedCall::command() const {
    std::string text;
    for (const auto& word : argv) text += (text.empty() ? "" : " ") + word;
    return text;
}

RecordedAnswer& RecordedAnswer::prints(const std::string& text) {
    return output_ = text, store();
}
RecordedAnswer& RecordedAnswer::complains(const std::string& text) {
    return error_ = text, store();
}
RecordedAnswer& RecordedAnswer::exits(int status) {
    return status_ = status, store();
}
RecordedAnswer& RecordedAnswer::dies(int signal) {
    return signal_ = signal, store();
}
RecordedAnswer& RecordedAnswer::delays(std::chrono::milliseconds time) {
    return delay_ms_ = static_cast<long>(time.count()), store();
}
RecordedAnswer& RecordedAnswer::hangs() {
    return hang_ = true, store();
}
RecordedAnswer& RecordedAnswer::floods() {
    return flood_ = true, store();
}
RecordedAnswer& RecordedAnswer::runs_real() {
    return run_real_ = true, store();
}

// Written aside and moved into place: a call sees either the old or the new answer.
RecordedAnswer& RecordedAnswer::store() {
    std::string text;
    if (!match_.empty()) text += pair("match", match_);
    if (delay_ms_ != 0) text += pair("delay", std::to_string(delay_ms_));
    if (run_real_) text += pair("real", real_);
    if (!error_.empty()) text += pair("error", error_);
    if (!output_.empty()) text += pair("output", output_);
    if (flood_) text += pair("flood", "1");
    if (hang_) text += pair("hang", "1");
    if (signal_ != 0) text += pair("signal", std::to_string(signal_));
    text += pair("exit", std::to_string(status_));
    write_file(file_ + ".new", text);
    fs::rename(file_ + ".new", file_);
    return *this;
}

Recorder::Recorder(std::string path) : path_(std::move(path)), folder_(orders_folder(path_)) {
    const fs::path file = merged(path_);
    if (!file.is_absolute()) throw std::invalid_argument("not an absolute path: " + path_);
    if (!tools[file.parent_path()].insert(file.filename()).second)
        throw std::invalid_argument(path_ + " is recorded already");
    fs::remove_all(folder_);
    fs::create_directories(folder_);
    lay(file.parent_path());
}

Recorder::~Recorder() {
    const fs::path file = merged(path_);
    if (tools[file.parent_path()].erase(file.filename()) != 0) {
        try {
            lay(file.parent_path());
        } catch (const std::exception&) {  // remove_all() is next
        }
    }
    for (auto* answer : answers_) delete answer;
}

RecordedAnswer& Recorder::always() {
    return when("");
}

RecordedAnswer& Recorder::when(const std::string& text) {
    int number = 0;
    for (auto* answer : answers_) {
        if (answer->match_ == text) return *answer;
        if (!answer->match_.empty()) ++number;
    }
    char name[16];
    std::snprintf(name, sizeof name, "/%02d", number);
    answers_.push_back(new RecordedAnswer(folder_ + (text.empty() ? "/always" : name), text));
    const fs::path file = merged(path_);
    answers_.back()->real_ = real_tool(file.filename());
    return answers_.back()->store();
}

std::vector<RecordedCall> Recorder::calls() const {
    return read_journal(merged(path_));
}

std::vector<std::string> Recorder::commands() const {
    return texts(calls());
}

void Recorder::forget_calls() {
    std::istringstream lines(::access(kJournal.c_str(), R_OK) == 0 ? read_file(kJournal) : "");
    const std::string mine = "\"tool\":\"" + merged(path_) + "\"";
    std::string others;
    for (std::string line; std::getline(lines, line);)
        if (line.find(mine) == std::string::npos) others += line + "\n";
    write_file(kJournal, others);
}

bool Recorder::wait_for_calls(std::size_t count, std::chrono::milliseconds limit) const {
    return wait_until([&] { return calls().size() >= count; }, limit);
}

std::vector<RecordedCall> Recorders::calls() {
    return read_journal("");
}

std::vector<std::string> Recorders::commands() {
    return texts(calls());
}

void Recorders::remove_all() {
    end_running();
    for (const auto& folder : layered) ::umount2(folder.c_str(), MNT_DETACH);
    layered.clear();
    tools.clear();
    std::error_code ignored;
    fs::remove_all(kOrders, ignored);
    for (; layers > 0; --layers)
        fs::remove_all(std::string(isolation::kOwnDir) + "/layer" + std::to_string(layers - 1), ignored);
}

}  // namespace corvo::test
