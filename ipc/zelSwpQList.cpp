// Queue lists: the traffic of one sender to one receiver spread over several sliding-window queues. Messages of a group
// travel on the queue that the group is bound to, in order; different groups travel side by side.
//
// A group that is bound again chooses again, and the queue it had before keeps its count: binding stays O(queues), and
// counts only steer the choice. A list belongs to its creator, who serialises binding with everything else; enqueueing
// by several tasks at once is safe. What the receiving side reads from a message, the index of the queue within the
// list, is untrusted.
#include <cstdarg>
#include <cstdio>

#include "ipc/swp_ack.h"
#include "ipc/swp_queue.h"
#include "ipc/swp_table.h"
#include "zel/platform.h"

namespace zel::ipc::swp {
namespace {

constexpr const char *listTag = "zelSwpQList";
constexpr std::int32_t unbound = -1;

// Words of a list's message, behind the sliding-window header.
struct ListHeader {
    using QueueIndex = wire::Field<std::uint32_t, 124>;
    using Group = wire::Field<std::uint32_t, 128>;
    static constexpr std::size_t end = Group::end;
};
static_assert(ListHeader::QueueIndex::offset == SwpHeader::endInMessage && ListHeader::end == 132);

struct Member {
    std::uint32_t queue;
    std::uint32_t groups;
};

__attribute__((format(printf, 2, 3))) void complain(std::uint32_t moduleId, const char *format, ...) {
    if (zelSwp_debug == 0) return;
    char text[160];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    zelErrorPrintf(moduleId, "%s", text);
}

// Whoever asked for a queue's number may have enqueued shorter messages beside the list.
std::uint32_t dropGroup(void *message, std::uint32_t length, void *group) {
    const bool isOfGroup =
        length >= ListHeader::end && ListHeader::Group::get(message) == *static_cast<std::uint32_t *>(group);
    return isOfGroup ? 0 : length;
}

}  // namespace
}  // namespace zel::ipc::swp

using namespace zel::ipc;
using namespace zel::ipc::swp;

struct zelSwpQList {
    Member *members;
    uint32_t numQueues;
    uint32_t numGroups;
    int32_t *memberOfGroup;
    uint32_t moduleId;
};

struct zelSwpExpSeqList {
    uint32_t numQueues;
    Stream streams[1];  // numQueues of them
};

namespace {

bool isBound(const zelSwpQList &list, uint32_t group) {
    const int32_t index = list.memberOfGroup[group];
    return index >= 0 && static_cast<uint32_t>(index) < list.numQueues;
}

void freeList(zelSwpQList *list) {
    zelMC_free(listTag, __LINE__, list->memberOfGroup);
    zelMC_free(listTag, __LINE__, list->members);
    zelMC_free(listTag, __LINE__, list);
}

zelSwpQList *allocateList(uint32_t numQueues, uint32_t numGroups, uint32_t moduleId) {
    auto *list = static_cast<zelSwpQList *>(zelMC_calloc(listTag, __LINE__, 1, sizeof(zelSwpQList)));
    if (list == nullptr) {
        reportSystemError(eventListMemory, "SWP_Q_LIST: calloc");
        return nullptr;
    }
    list->members = static_cast<Member *>(zelMC_calloc(listTag, __LINE__, numQueues, sizeof(Member)));
    list->memberOfGroup = static_cast<int32_t *>(zelMC_calloc(listTag, __LINE__, numGroups, sizeof(int32_t)));
    if (list->members == nullptr || list->memberOfGroup == nullptr) {
        reportSystemError(eventListMemory, list->members == nullptr ? "SWP_Q_LIST Node: calloc" : "SWP_Q_LIST: calloc");
        freeList(list);
        return nullptr;
    }
    list->numGroups = numGroups;
    list->moduleId = moduleId;
    for (uint32_t group = 0; group < numGroups; ++group) list->memberOfGroup[group] = unbound;
    return list;
}

int removeQueues(const zelSwpQList &list, const char *function) {
    int result = ZEL_SWP_SUCCESS;
    for (uint32_t i = 0; i < list.numQueues; ++i) {
        const int removed = zelSwpQueueRemove(list.members[i].queue);
        if (removed == ZEL_SWP_SUCCESS) continue;
        complain(list.moduleId, "%s: Q Rmv failed Qid %d Ret Val %d \n", function,
                 static_cast<int>(list.members[i].queue), removed);
        result = ZEL_SWP_FAILURE;
    }
    return result;
}

// The first queue that carries the fewest groups.
uint32_t leastUsed(const zelSwpQList &list) {
    uint32_t least = 0;
    for (uint32_t i = 1; i < list.numQueues; ++i)
        if (list.members[i].groups < list.members[least].groups) least = i;
    return least;
}

// Room for one stream stands in the list itself.
size_t bytesOfExpected(uint32_t numQueues) {
    return sizeof(zelSwpExpSeqList) + (numQueues - 1) * sizeof(Stream);
}

}  // namespace

int zelSwpQListCreate(int senderService, int senderInstance, int receiverService, int receiverInstance,
                      uint32_t capacity, uint32_t window, uint32_t timeOutSec, uint8_t retransCount,
                      zelSwpUserCb callback, uint32_t numQueues, uint32_t numGroups, uint32_t moduleId,
                      zelSwpQList **list) {
    if (numQueues == 0 || numGroups == 0 || list == nullptr) {
        complain(moduleId, "%s: Bad parameters \n", __func__);
        return ZEL_SWP_FAILURE;
    }
    if (numQueues > numGroups) {
        complain(moduleId, "%s: Num Grps less than No of Qs \n", __func__);
        return ZEL_SWP_FAILURE;
    }
    zelSwpQList *made = allocateList(numQueues, numGroups, moduleId);
    if (made == nullptr) return ZEL_SWP_FAILURE;
    for (uint32_t i = 0; i < numQueues; ++i, ++made->numQueues) {
        const int created =
            zelSwpQueueCreate(senderService, senderInstance, receiverService, receiverInstance, capacity, window,
                              timeOutSec, retransCount, callback, &made->members[i].queue);
        if (created == ZEL_SWP_SUCCESS) continue;
        complain(moduleId, "%s: Q Create Failed for Q %d Ret Val %d \n", __func__, static_cast<int>(i), created);
        removeQueues(*made, __func__);
        freeList(made);
        return ZEL_SWP_FAILURE;
    }
    *list = made;
    return ZEL_SWP_SUCCESS;
}

int zelSWPQListAddMsgGroup(zelSwpQList *list, uint32_t group) {
    if (list == nullptr) return ZEL_SWP_FAILURE;
    if (group >= list->numGroups) {
        complain(list->moduleId, "%s: Grp ID is > Max num Grps\n", __func__);
        return ZEL_SWP_FAILURE;
    }
    const uint32_t chosen = leastUsed(*list);
    if (list->members[chosen].groups > list->numGroups) {
        complain(list->moduleId, "%s:  Computed Min No. of Grps > Max num Grps \n", __func__);
        return ZEL_SWP_FAILURE;
    }
    if (isBound(*list, group)) complain(list->moduleId, "%s: This Grp belongs to a valid group!!!\n", __func__);
    list->memberOfGroup[group] = static_cast<int32_t>(chosen);
    ++list->members[chosen].groups;
    return ZEL_SWP_SUCCESS;
}

int zelSWPQListRemoveMsgGroup(zelSwpQList *list, uint32_t group) {
    if (list == nullptr || group >= list->numGroups || !isBound(*list, group)) return ZEL_SWP_FAILURE;
    Member &member = list->members[list->memberOfGroup[group]];
    if (member.groups > 0) --member.groups;
    list->memberOfGroup[group] = unbound;
    return ZEL_SWP_SUCCESS;
}

int zelSWPQListEnqueue(zelSwpQList *list, uint32_t group, void *message, int length) {
    if (list == nullptr || message == nullptr) {
        complain(list != nullptr ? list->moduleId : moduleIpc, "%s: Bad parameters \n", __func__);
        return ZEL_SWP_FAILURE;
    }
    if (group >= list->numGroups) {
        complain(list->moduleId, "%s: Grp ID is > No. Of Registered groups \n", __func__);
        return ZEL_SWP_FAILURE;
    }
    if (length < static_cast<int>(ListHeader::end)) {
        complain(list->moduleId, "%s: Buffer len < minimal required length\n", __func__);
        return ZEL_SWP_FAILURE;
    }
    if (!isBound(*list, group)) {
        complain(list->moduleId, "%s: Invalide Queue for the group %d \n", __func__, static_cast<int>(group));
        return ZEL_SWP_FAILURE;
    }
    const auto index = static_cast<uint32_t>(list->memberOfGroup[group]);
    ListHeader::QueueIndex::set(message, index);
    ListHeader::Group::set(message, group);
    return zelSwpEnqueue(list->members[index].queue, message, length);
}

int zelSWPQListGetQHandle(zelSwpQList *list, uint32_t group, uint32_t *queue) {
    if (list == nullptr || queue == nullptr || group >= list->numGroups || !isBound(*list, group))
        return ZEL_SWP_FAILURE;
    *queue = list->members[list->memberOfGroup[group]].queue;
    return ZEL_SWP_SUCCESS;
}

int zelSwpQListFlush(zelSwpQList *list) {
    if (list == nullptr) return ZEL_SWP_FAILURE;
    int result = ZEL_SWP_SUCCESS;
    for (uint32_t i = 0; i < list->numQueues; ++i)
        if (zelSwpQueueFlush(list->members[i].queue) != ZEL_SWP_SUCCESS) result = ZEL_SWP_FAILURE;
    return result;
}

int zelSwpQListFlushGroup(zelSwpQList *list, uint32_t group) {
    uint32_t queue = 0;
    if (zelSWPQListGetQHandle(list, group, &queue) != ZEL_SWP_SUCCESS) return ZEL_SWP_FAILURE;
    return trimUnsent(queue, dropGroup, &group);
}

int zelSwpQListRemove(zelSwpQList *list) {
    if (list == nullptr) return ZEL_SWP_FAILURE;
    const int result = removeQueues(*list, __func__);
    freeList(list);
    return result;
}

int zelSwpQListGetLen(zelSwpQList *list) {
    if (list == nullptr) return ZEL_ERROR;
    int total = 0;
    for (uint32_t i = 0; i < list->numQueues; ++i) {
        const int length = zelSwpQueueGetLen(list->members[i].queue);
        if (length > 0) total += length;
    }
    return total;
}

int zelSwpQListGetQLen(zelSwpQList *list, uint32_t index) {
    if (list == nullptr || index >= list->numQueues) return ZEL_ERROR;
    return zelSwpQueueGetLen(list->members[index].queue);
}

void zelSwpQListPrint(zelSwpQList *list) {
    if (list == nullptr) return;
    printf("queue list of module %u: %u queues, %u groups\n", list->moduleId, list->numQueues, list->numGroups);
    for (uint32_t i = 0; i < list->numQueues; ++i)
        printf("  [%u] queue %u carries %u groups\n", i, list->members[i].queue, list->members[i].groups);
    for (uint32_t group = 0; group < list->numGroups; ++group)
        if (isBound(*list, group)) printf("  group %u -> [%d]\n", group, list->memberOfGroup[group]);
}

zelSwpExpSeqList *zelSwpQListCreateExpSeqList(uint32_t numQueues) {
    if (numQueues == 0 || numQueues > ZEL_SWP_MAX_QUEUES) return nullptr;
    auto *expected = static_cast<zelSwpExpSeqList *>(zelMC_calloc(listTag, __LINE__, 1, bytesOfExpected(numQueues)));
    if (expected != nullptr) expected->numQueues = numQueues;
    return expected;
}

void zelSwpQListRemoveExpSeqList(zelSwpExpSeqList *expected) {
    zelMC_free(listTag, __LINE__, expected);
}

int zelSwpQListCkSeqAndAck(uint32_t key, const void *message, zelSwpExpSeqList *expected, int length) {
    if (message == nullptr || expected == nullptr || length < static_cast<int>(ListHeader::end)) return ZEL_SWP_FAILURE;
    const uint32_t index = ListHeader::QueueIndex::get(message);
    if (index >= expected->numQueues) return ZEL_SWP_FAILURE;
    return checkAndAcknowledge(key, message, length, expected->streams[index]);
}

void zelSwpQListExpSeqListPrint(const zelSwpExpSeqList *expected) {
    if (expected == nullptr) return;
    for (uint32_t i = 0; i < expected->numQueues; ++i)
        printf("  [%u] stream %u expects %llu\n", i, expected->streams[i].number,
               static_cast<unsigned long long>(expected->streams[i].expected));
}
