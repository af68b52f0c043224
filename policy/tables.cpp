// Finding lists by name, and their images.
#include "policy/tables.h"

#include <cstring>

#include "policy/tree_reader.h"
#include "zel/platform.h"

namespace zel::policy {
namespace {

constexpr std::uint64_t lookAgainAfter = 1'000'000'000;  // nanoseconds

constinit std::atomic<Root *> attached{nullptr};
constinit std::atomic<std::uint64_t> nextLook{0};

Root *attach() {
    const zelHostSeam *seam = zelPlatformSeam();
    const std::uint64_t now = seam->now(seam->context);
    std::uint64_t due = nextLook.load(std::memory_order_relaxed);
    if (now < due || !nextLook.compare_exchange_strong(due, now + lookAgainAfter)) return nullptr;
    auto *found = static_cast<Root *>(platform::attachPolicySegment(false));
    attached.store(found, std::memory_order_release);
    return found;
}

// A name as the trees compare it.
struct NameKey {
    alignas(8) std::uint8_t bytes[nameLength + 4] = {};
    explicit NameKey(const char *name) { memcpy(bytes, name, strnlen(name, nameLength)); }
};

}  // namespace

Root *root() {
    Root *tables = attached.load(std::memory_order_acquire);
    if (tables == nullptr) tables = attach();
    return tables != nullptr && tables->magic.load(std::memory_order_acquire) == Root::readyMagic ? tables : nullptr;
}

ListNode *findList(const zelRadix *names, Kind kind, const char *name) {
    if (names == nullptr || name == nullptr) return nullptr;
    const NameKey key(name);
    const zelRadixNode *node = exactNode(*names, key.bytes, nameBits);
    const auto *list = node != nullptr ? entryAt<ListNode>(*node) : nullptr;
    if (list == nullptr || list->kind != kind || memcmp(list->name, key.bytes, nameLength) != 0) return nullptr;
    return const_cast<ListNode *>(list);
}

ListNode *findList(const ControlBlock &tables, Kind kind, const char *name) {
    return findList(&tables.trees[static_cast<std::size_t>(kind)], kind, name);
}

Bytes imageOf(const ListNode *list, Kind kind) {
    if (list == nullptr || list->magic != ListNode::validMagic || list->kind != kind) return {};
    const Link link = list->image.load(std::memory_order_acquire);
    const auto *image = at<Image>(link);
    if (image == nullptr || image->magic != Image::validMagic || image->kind != kind) return {};
    const std::size_t bytes = readOnce(image->bytes);
    if (bytes < sizeof(Image) || at<Image>(link, bytes) == nullptr) return {};
    return {reinterpret_cast<const std::uint8_t *>(image), bytes};
}

}  // namespace zel::policy
