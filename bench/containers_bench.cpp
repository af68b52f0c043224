// The intrusive list against another one: insertion at the back and removal of a node elsewhere in a list of 64.
#include <array>
#include <boost/intrusive/list.hpp>

#include "bench/support/row.h"
#include "zel/containers.h"

namespace {

constexpr unsigned nodes = 64;
constexpr unsigned stride = 37;  // visits every node before one comes again

struct Ours {
    zelDLLNode node{};
    int payload = 0;
};

void ourList(benchmark::State &state) {
    zelDLL head;
    zelDLLInit(&head);
    std::array<Ours, nodes> items;
    for (auto &item : items) zelDLLInsertAtBack(&head, &item.node);
    unsigned at = 0;
    for (auto _ : state) {
        zelDLLNode *node = &items[at].node;
        zelDLLRemove(&head, node);
        zelDLLInsertAtBack(&head, node);
        benchmark::ClobberMemory();
        at = (at + stride) % nodes;
    }
}

struct Theirs : boost::intrusive::list_base_hook<> {
    int payload = 0;
};

void boostList(benchmark::State &state) {
    boost::intrusive::list<Theirs, boost::intrusive::constant_time_size<false>> list;
    std::array<Theirs, nodes> items;
    for (auto &item : items) list.push_back(item);
    unsigned at = 0;
    for (auto _ : state) {
        list.erase(list.iterator_to(items[at]));
        list.push_back(items[at]);
        benchmark::ClobberMemory();
        at = (at + stride) % nodes;
    }
    list.clear();
}

ZEL_ROW("zelDLL insert + remove", "ns", time).ours(ourList).peer("boost::intrusive::list", boostList, 1.3);

}  // namespace
