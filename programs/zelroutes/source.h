// A source of routes: registers with the route table manager, pushes what its files say in batches over a
// sliding-window queue, and keeps it there. Whenever the manager forgets the stream (it was started anew) or no longer
// answers, the source registers again, flushes, and pushes everything once more.
//
// With several VRFs each gets all routes. They take turns route by route, each with a batch of its own, and share one
// queue or are spread over the queues of a list.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "programs/support/policy_filter.h"
#include "programs/support/table_file.h"
#include "zel/ipc.h"
#include "zel/rtm.h"

namespace zelroutes {

struct Options {
    std::string table;
    std::vector<std::string> updates;  // played behind the table, in this order
    std::string report;                // file that gets the summary when everything is acknowledged
    std::uint8_t distance = 20;
    std::uint32_t interface = 1;
    std::uint32_t window = 0;  // 0: the queue's default
    std::uint32_t vrfs = 1;
    std::uint32_t queues = 0;  // of a queue list; 0: one queue without a list
    zel::programs::PolicyFilter filter;
    bool quits = false;  // ends when everything is acknowledged
};

class Source {
public:
    Source(std::uint32_t key, const Options &options);
    ~Source();

    // Until the program is asked to stop, or is done when it quits then: the exit status.
    int run();

private:
    enum class Push { done, stopped, startOver };
    // What goes into one VRF.
    struct Lane {
        std::uint32_t vrf = 0;
        std::size_t next = 0;  // row
        void *pending = nullptr;
        std::size_t batchBegin = 0;  // the first row of the batch under construction
        int family = 0;              // and the family of that batch
    };

    bool load();
    void filter();
    bool makeQueues();
    int makeList();
    void removeQueues();
    bool registerOnce();
    bool connect();
    bool pushUntilDone();
    Push pushAll();
    Push pushRow(Lane &lane);
    int update(Lane &lane, std::uint32_t operation, const zelRtmRoute *route);
    Push flushPending(Lane &lane);
    void dropPending();
    Push awaitRoom(int most);
    int roomForMore() const;
    int queued() const;
    bool mustStartOver() const;
    // Makes ready for pushing everything again; false when the program is asked to stop.
    bool startOver();
    bool receive(int seconds);
    void takeMessage(const std::uint8_t *message, int length);
    void report();
    void watch();
    std::uint32_t operationOf(const zel::programs::Row &row) const;

    std::uint32_t key_;
    Options options_;
    zelIpcAddr address_{};
    zel::programs::TableFile table_;
    zel::programs::PolicyCounts decided_;
    double filterSeconds_ = 0;
    zelRtmRoute route_{};
    std::vector<std::uint32_t> queues_;
    zelSwpQList *list_ = nullptr;  // of these queues, if there is one
    std::uint32_t handle_ = 0;
    std::vector<Lane> lanes_;
    bool wasCleared_ = false;  // the manager threw our routes away and asked for them
    std::vector<std::uint8_t> buffer_;
    unsigned long queueFull_ = 0;
    unsigned long recoveries_ = 0;
    double seconds_ = 0;
};

}  // namespace zelroutes
