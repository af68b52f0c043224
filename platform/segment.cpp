// Shared segments: found or created by whoever comes first.
//
// Creation happens under an exclusive flock on the segment itself: an empty segment, or one whose creator died before
// the header's magic word was written (it is written last), is given its size and header by whoever holds the lock.
// Afterwards the header only says what the segment is. A segment that somebody else owns, that others may write, or
// that has another size or layout is refused, because everything in it would be believed.
//
// The policy segment is mapped over its whole reserved range at once, past the end of the file: when a process grows
// the file, the new bytes are there in every process that maps it, and what lies beyond still faults.
#include "platform/segment.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <bit>
#include <utility>

#include "base/lock.h"
#include "platform/cancellation.h"
#include "platform/environment.h"
#include "zel/platform.h"

namespace zel::platform {
namespace {

constexpr std::size_t pageBytes = 4096;
constexpr std::uint32_t segmentVersion = 1;
constexpr std::uint64_t sysMagic = 0x7a656c2d73797331;     // "zel-sys1"
constexpr std::uint64_t policyMagic = 0x7a656c2d706f6c31;  // "zel-pol1"
constexpr mode_t segmentMode = 0660;

// First page of a segment.
struct Header {
    std::atomic<std::uint64_t> magic;  // written last, so that it says: initialised
    std::uint32_t version;
    std::uint32_t abi;
    std::atomic<std::uint64_t> bytes;  // size of the file
};
static_assert(sizeof(Header) <= pageBytes && std::atomic<std::uint64_t>::is_always_lock_free);

constexpr std::size_t onPages(std::size_t bytes) {
    return (bytes + pageBytes - 1) / pageBytes * pageBytes;
}

// Behind the header, each section from a page of its own; the last entry is the end.
constexpr auto sectionOffsets = [] {
    std::array<std::size_t, sectionBytes.size() + 1> offsets{pageBytes};
    for (std::size_t i = 0; i < sectionBytes.size(); ++i) offsets[i + 1] = offsets[i] + onPages(sectionBytes[i]);
    return offsets;
}();
constexpr std::size_t sectionOffset(Section section) {
    return sectionOffsets[static_cast<std::size_t>(section)];
}

constexpr std::size_t sysBytes = sectionOffset(Section::count);

// Two programs may share a segment when they agree on this: word sizes, byte order, sizes of all sections.
constexpr std::uint32_t abiWord() {
    std::uint32_t hash = 2166136261u;
    const auto mix = [&hash](std::size_t value) { hash = (hash ^ static_cast<std::uint32_t>(value)) * 16777619u; };
    mix(sizeof(void *));
    mix(std::endian::native == std::endian::big ? 1 : 0);
    for (const std::size_t bytes : sectionBytes) mix(bytes);
    mix(static_cast<std::size_t>(policyAddress >> 12));
    mix(policyReservedBytes);
    return hash;
}

struct Kind {
    const char *name;
    std::uint64_t magic;
    std::size_t initialBytes;
};
constexpr Kind sysKind{"sys", sysMagic, sysBytes};
constexpr Kind policyKind{"policy", policyMagic, policyStepBytes};

// Closes itself; a flock taken through it ends with it.
class File {
public:
    explicit File(int fd = -1) : fd_(fd) {}
    File(File &&other) : fd_(other.fd_) { other.fd_ = -1; }
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    File &operator=(File &&) = delete;
    ~File() {
        const int savedErrno = errno;
        if (fd_ >= 0) close(fd_);
        errno = savedErrno;
    }
    int fd() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_;
};

template <class Call>
int retried(Call call) {
    int result;
    do {
        result = call();
    } while (result == EINTR || (result == -1 && errno == EINTR));
    return result;
}

bool fail(int error) {
    errno = error;
    return false;
}

// Whoever could have made the segment: this user, the superuser, or a member of the configured group.
bool isTrusted(const struct stat &status) {
    if (!S_ISREG(status.st_mode) || (status.st_mode & S_IRWXO) != 0) return false;
    if (status.st_uid == geteuid() || status.st_uid == 0) return true;
    const gid_t group = segmentGroup();
    return group != noGroup && status.st_gid == group;
}

bool allocate(int fd, std::size_t bytes) {
    const int error = retried([&] { return posix_fallocate(fd, 0, static_cast<off_t>(bytes)); });
    return error == 0 || fail(error);
}

bool initialise(int fd, const Kind &kind) {
    if (ftruncate(fd, 0) != 0 || fchmod(fd, segmentMode) != 0) return false;
    const gid_t group = segmentGroup();
    if (group != noGroup && fchown(fd, static_cast<uid_t>(-1), group) != 0) return false;
    if (!allocate(fd, kind.initialBytes)) return false;
    void *page = mmap(nullptr, pageBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (page == MAP_FAILED) return false;
    auto *header = static_cast<Header *>(page);
    header->version = segmentVersion;
    header->abi = abiWord();
    header->bytes.store(kind.initialBytes, std::memory_order_relaxed);
    header->magic.store(kind.magic, std::memory_order_release);
    munmap(page, pageBytes);
    return true;
}

// EINVAL: not a segment of this kind or not of its size; EPROTO: another version or layout of the library made it.
bool isUsable(int fd, const Kind &kind, std::size_t fileBytes) {
    Header header{};
    if (pread(fd, static_cast<void *>(&header), sizeof header, 0) != static_cast<ssize_t>(sizeof header))
        return fail(EINVAL);
    if (header.magic != kind.magic) return fail(EINVAL);
    if (header.version != segmentVersion || header.abi != abiWord()) return fail(EPROTO);
    // A process killed while it grew the policy segment leaves a file that is larger than its header says.
    if (kind.magic == policyMagic)
        return (header.bytes % policyStepBytes == 0 && header.bytes <= fileBytes && fileBytes <= policyReservedBytes) ||
               fail(EINVAL);
    return (header.bytes == sysBytes && fileBytes == sysBytes) || fail(EINVAL);
}

bool isUninitialised(int fd, std::size_t fileBytes) {
    std::uint64_t magic = 0;
    return fileBytes < sizeof(Header) || (pread(fd, &magic, sizeof magic, 0) == sizeof magic && magic == 0);
}

enum class Opened { yes, no, gone };

// Under flock: checks the segment, and initialises it when nobody has.
Opened prepare(int fd, const Kind &kind) {
    if (retried([&] { return flock(fd, LOCK_EX); }) != 0) return Opened::no;
    struct stat status {};
    if (fstat(fd, &status) != 0) return Opened::no;
    if (status.st_nlink == 0) return Opened::gone;  // unlinked while we waited: the name now means another one
    if (!isTrusted(status)) return fail(EACCES), Opened::no;
    const auto fileBytes = static_cast<std::size_t>(status.st_size);
    const bool isGood = isUninitialised(fd, fileBytes) ? initialise(fd, kind) : isUsable(fd, kind, fileBytes);
    flock(fd, LOCK_UN);
    return isGood ? Opened::yes : Opened::no;
}

File openSegment(const Kind &kind, bool create) {
    const std::string name = segmentName(kind.name);
    for (;;) {
        File file(shm_open(name.c_str(), O_RDWR | (create ? O_CREAT : 0), segmentMode));
        if (!file) return file;
        switch (prepare(file.fd(), kind)) {
            case Opened::yes:
                return file;
            case Opened::no:
                return File();
            case Opened::gone:
                break;
        }
    }
}

// Attaching is serialised within the process by `attachLock`; what is attached stays so.
Mutex attachLock{LockRank::module, "&segment_lock"};
constinit std::atomic<std::uint8_t *> sysBase{nullptr};
constinit std::atomic<Header *> policyHeader{nullptr};
int policyFile = -1;  // stays open to grow the segment: its name may be unlinked, or mean another one, by then

std::uint8_t *attachSys() {
    const NoCancellation guard;
    Lock lock(attachLock);
    if (auto *base = sysBase.load()) return base;
    const File file = openSegment(sysKind, true);
    if (!file) return nullptr;
    void *base = mmap(nullptr, sysBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.fd(), 0);
    if (base == MAP_FAILED) return nullptr;
    sysBase.store(static_cast<std::uint8_t *>(base), std::memory_order_release);
    return sysBase;
}

// The whole range at its one address, or null with EEXIST when something else lies there.
Header *mapPolicy(int fd) {
    void *wanted = reinterpret_cast<void *>(policyAddress);
    void *base = mmap(wanted, policyReservedBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED_NOREPLACE, fd, 0);
    if (base == MAP_FAILED) return nullptr;
    if (base == wanted) return static_cast<Header *>(base);
    munmap(base, policyReservedBytes);  // an old kernel takes the address as a hint only
    errno = EEXIST;
    return nullptr;
}

std::uint8_t *policyRoot(Header *header) {
    return reinterpret_cast<std::uint8_t *>(header) + policyRootOffset;
}

std::size_t onSteps(std::size_t bytes) {
    return (bytes + policyStepBytes - 1) / policyStepBytes * policyStepBytes;
}

}  // namespace

void *sysSection(Section section) {
    std::uint8_t *base = sysBase.load(std::memory_order_acquire);
    if (base == nullptr) base = attachSys();
    return base != nullptr ? base + sectionOffset(section) : nullptr;
}

void *attachPolicySegment(bool create) {
    const NoCancellation guard;
    Lock lock(attachLock);
    if (auto *header = policyHeader.load()) return policyRoot(header);
    File file = openSegment(policyKind, create);
    Header *header = file ? mapPolicy(file.fd()) : nullptr;
    if (header == nullptr) return nullptr;
    policyFile = file.release();
    policyHeader.store(header, std::memory_order_release);
    return policyRoot(header);
}

bool growPolicySegment(std::size_t bytes) {
    if (!isPolicySegmentAttached()) return fail(ENXIO);
    if (bytes > policyReservedBytes) return fail(ENOMEM);
    if (bytes <= policySegmentBytes()) return true;
    const NoCancellation guard;
    Lock lock(attachLock);
    // Allocating never shrinks a file, so processes that grow it at the same time need no further agreement.
    if (!allocate(policyFile, onSteps(bytes))) return false;
    std::atomic<std::uint64_t> &known = policyHeader.load()->bytes;
    std::uint64_t before = known.load();
    while (before < onSteps(bytes) && !known.compare_exchange_weak(before, onSteps(bytes))) {
    }
    return true;
}

bool isPolicySegmentAttached() {
    return policyHeader.load(std::memory_order_acquire) != nullptr;
}

std::size_t policySegmentBytes() {
    const Header *header = policyHeader.load(std::memory_order_acquire);
    return header != nullptr ? static_cast<std::size_t>(header->bytes.load(std::memory_order_acquire)) : 0;
}

constinit std::atomic<std::size_t> policyBackedBytes{0};

bool isPolicyBackedNow(std::size_t bytes) {
    struct stat status {};
    if (!isPolicySegmentAttached() || fstat(policyFile, &status) != 0) return false;
    const auto backed = static_cast<std::size_t>(status.st_size);
    policyBackedBytes.store(backed, std::memory_order_relaxed);
    return bytes <= backed;
}

}  // namespace zel::platform

using namespace zel::platform;

int zelPlatformUnlinkSegments(void) {
    const NoCancellation guard;
    int result = 0;
    for (const Kind &kind : {sysKind, policyKind})
        if (shm_unlink(segmentName(kind.name).c_str()) != 0 && errno != ENOENT) result = -1;
    return result;
}

int zelPlatformHasSegments(void) {
    const NoCancellation guard;
    return File(shm_open(segmentName(sysKind.name).c_str(), O_RDWR, 0)) ? 1 : 0;
}

void *zelPolicyAttachSegment(int create) {
    return attachPolicySegment(create != 0);
}

int zelPolicyIsInHeap(const void *address, size_t bytes) {
    return isInPolicyHeap(reinterpret_cast<std::uintptr_t>(address), bytes) ? 1 : 0;
}
