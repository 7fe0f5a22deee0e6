#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

// What a file holds; nothing if there is none.
inline std::string contents(const std::string& file) {
    std::ifstream stream(file);
    std::stringstream text;
    text << stream.rdbuf();
    return text.str();
}

inline std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// Waits for a condition; false when it has not come true within forty seconds.
inline bool await(const std::function<bool()>& condition) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(40);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > until) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    return true;
}

// A folder that is gone afterwards.
class Folder {
public:
    Folder() {
        std::string name = (std::filesystem::temp_directory_path() / "kestrix-program-XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no temporary folder");
        }
        path_ = name;
    }
    ~Folder() { std::filesystem::remove_all(path_); }
    std::string path(const std::string& name = "") const {
        return name.empty() ? path_.string() : (path_ / name).string();
    }
    void write(const std::string& name, const std::string& text) const {
        std::filesystem::create_directories((path_ / name).parent_path());
        std::ofstream(path_ / name) << text;
    }

private:
    std::filesystem::path path_;
};

// A program as a user starts it, with its two outputs apart.
class Process {
public:
    struct Result {
        int exitCode = -1;  // 128 + signal number when a signal ended it
        std::string out;
        std::string err;
    };

    explicit Process(std::vector<std::string> arguments) {
        static int number = 0;
        base_ = (std::filesystem::temp_directory_path() /
                 ("kestrix-program-" + std::to_string(::getpid()) + "-" + std::to_string(number++)))
                    .string();
        pid_ = ::fork();
        if (pid_ == 0) {
            redirect(base_ + ".out", STDOUT_FILENO);
            redirect(base_ + ".err", STDERR_FILENO);
            std::vector<char*> raw;
            for (auto& argument : arguments) {
                raw.push_back(argument.data());
            }
            raw.push_back(nullptr);
            ::execv(raw[0], raw.data());
            ::_exit(127);
        }
    }
    ~Process() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        std::filesystem::remove(base_ + ".out");
        std::filesystem::remove(base_ + ".err");
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // What the program has written onto its standard error so far.
    std::string errors() const { return contents(base_ + ".err"); }
    void signal(int number) const { ::kill(pid_, number); }
    pid_t pid() const { return pid_; }

    Result wait(double timeoutS = 120.0) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutS);
        int status = 0;
        while (::waitpid(pid_, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > end) {
                throw std::runtime_error("the program doesn't end");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        pid_ = -1;
        Result result;
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        result.out = contents(base_ + ".out");
        result.err = contents(base_ + ".err");
        return result;
    }

    static Result run(std::vector<std::string> arguments) { return Process(std::move(arguments)).wait(); }

    // zornhost on the instrument of a scenario's file.
    static std::vector<std::string> zornhostOn(const std::string& scenario, std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "--amplifiers",
                                             KESTRIX_AMPLIFIERS, "--simulate", scenario});
        return arguments;
    }
    // zornhost on the standard instrument, with its supply up: switching it on takes seconds. `faults` in JSON.
    static std::vector<std::string> zornhost(std::vector<std::string> arguments, const std::string& faults = "") {
        static const Folder folder;
        static int number = 0;
        const std::string name = faults.empty() ? "warm.json" : "faults-" + std::to_string(number++) + ".json";
        if (!std::filesystem::exists(folder.path(name))) {
            std::string text = contents(std::string(KESTRIX_SCENARIOS) + "/standard.json");
            const auto replace = [&text](const std::string& from, const std::string& to) {
                text.replace(text.find(from), from.size(), to);
            };
            replace("\"supplyOn\": false", "\"supplyOn\": true");
            replace("\"faults\": []", "\"faults\": [" + faults + "]");
            folder.write(name, text);
        }
        arguments.insert(arguments.begin(),
                         {KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "--simulate", folder.path(name)});
        return arguments;
    }

private:
    static void redirect(const std::string& file, int descriptor) {
        const int target = ::open(file.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
        ::dup2(target, descriptor);
        ::close(target);
    }
    std::string base_;
    pid_t pid_ = -1;
};
