// The demonstration's CPU: a task manager with the other programs as its tasks, on an address and with shared memory of
// their own.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace zeldemo {

// Gives this process, and those it starts, an address and a memory prefix that no other CPU of this host has, unless
// the environment names them. Before the library is first used.
void isolate();

// The lists of a policy file by which sources go: of each kind the one of this name.
constexpr char policyList[] = "edge";

// "name value" lines of a source's report.
using Report = std::map<std::string, double>;

class Cpu {
public:
    Cpu();
    ~Cpu();
    Cpu(const Cpu &) = delete;
    Cpu &operator=(const Cpu &) = delete;

    // Starts the task manager, the route table manager, with `policy` the manager of policy lists, and one source for
    // each of `services`, which pushes what the lists `policyList` permit.
    bool start(const std::vector<std::string> &services, const std::string &table, const std::string &policy,
               bool respawns);
    // Starts a task manager with these arguments.
    bool run(std::vector<std::string> words);
    // Whether the task manager runs; reaps it when it has ended.
    bool isRunning();
    // The process of the route table manager, 0 while there is none.
    pid_t routeManager() const;
    // The reports of the sources that have finished; removed once they are read.
    std::size_t finished() const;
    std::vector<Report> reports() const;
    void removeReports();
    // Ends everything; false when it had to be killed or something stayed behind.
    bool stop();
    // Kills everything without a word, and unlinks the shared memory that then stays, by a task manager with these
    // arguments. How many processes there were; the tasks among them only for a process to which orphans go.
    int kill(std::vector<std::string> words);
    // What the programs said.
    void showLog() const;

private:
    std::string reportFile(const std::string &service) const;

    std::string directory_;
    std::vector<std::string> services_;
    pid_t manager_ = -1;
};

}  // namespace zeldemo
