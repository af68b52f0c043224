// Semaphores, message queues and byte rings against what a program would write without them.
#include <fcntl.h>
#include <linux/futex.h>
#include <mqueue.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <boost/lockfree/spsc_queue.hpp>
#include <cstring>
#include <functional>
#include <thread>

#include "bench/support/row.h"
#include "zel/kernel.h"

namespace {

constexpr std::size_t messageBytes = 64;
constexpr int depth = 64;
using Message = std::array<char, messageBytes>;

// Runs a function in a task of ours until it returns.
class Task {
public:
    explicit Task(std::function<void()> body) : body_(std::move(body)) {
        taskSpawn("bench", 100, 0, 0, run, reinterpret_cast<intptr_t>(this), 0, 0, 0, 0, 0, 0, 0, 0, 0);
    }
    Task(const Task &) = delete;
    ~Task() {
        while (!isDone_) sched_yield();
    }

private:
    static int run(intptr_t self, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t,
                   intptr_t) {
        auto &task = *reinterpret_cast<Task *>(self);
        task.body_();
        task.isDone_ = true;
        return 0;
    }
    std::function<void()> body_;
    std::atomic<bool> isDone_{false};
};

// ---- Semaphores ----

void takeAndGive(benchmark::State &state) {
    const zelSemId id = semBCreate(ZEL_SEM_FIFO, 1);
    for (auto _ : state) {
        semTake(id, WAIT_FOREVER);
        semGive(id);
    }
    semDelete(id);
}

void waitAndPost(benchmark::State &state) {
    sem_t sem;
    sem_init(&sem, 0, 1);
    for (auto _ : state) {
        sem_wait(&sem);
        sem_post(&sem);
    }
    sem_destroy(&sem);
}

ZEL_ROW("semTake + semGive, uncontended", "ns", time).ours(takeAndGive).peer("sem_t pair", waitAndPost, 2.0, 1.3);

// One iteration goes there and back.
void semaphorePingPong(benchmark::State &state) {
    const zelSemId ping = semBCreate(ZEL_SEM_FIFO, 0), pong = semBCreate(ZEL_SEM_FIFO, 0);
    std::atomic<bool> isOver{false};
    Task partner([&] {
        while (semTake(ping, WAIT_FOREVER) == ZEL_OK && !isOver) semGive(pong);
    });
    for (auto _ : state) {
        semGive(ping);
        semTake(pong, WAIT_FOREVER);
    }
    isOver = true;
    semGive(ping);
}

void futexWait(std::atomic<int> &word) {
    while (word.load(std::memory_order_acquire) == 0)
        syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
    word.store(0, std::memory_order_relaxed);
}

void futexPost(std::atomic<int> &word) {
    word.store(1, std::memory_order_release);
    syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void futexPingPong(benchmark::State &state) {
    std::atomic<int> ping{0}, pong{0};
    std::atomic<bool> isOver{false};
    std::thread partner([&] {
        for (futexWait(ping); !isOver; futexWait(ping)) futexPost(pong);
    });
    for (auto _ : state) {
        futexPost(ping);
        futexWait(pong);
    }
    isOver = true;
    futexPost(ping);
    partner.join();
}

ZEL_ROW("two tasks ping-pong over binary semaphores", "ns", time)
    .ours(semaphorePingPong)
    .peer("raw futex ping-pong", futexPingPong, 1.2, 1.0);

// ---- Message queues ----

// A ring of messages as one writes it by hand: a mutex and a condition for each side.
class Ring {
public:
    void send(const Message &message) {
        pthread_mutex_lock(&lock_);
        while (count_ == depth) pthread_cond_wait(&room_, &lock_);
        slots_[tail_] = message;
        tail_ = (tail_ + 1) % depth;
        ++count_;
        pthread_cond_signal(&arrival_);
        pthread_mutex_unlock(&lock_);
    }
    void receive(Message &message) {
        pthread_mutex_lock(&lock_);
        while (count_ == 0) pthread_cond_wait(&arrival_, &lock_);
        message = slots_[head_];
        head_ = (head_ + 1) % depth;
        --count_;
        pthread_cond_signal(&room_);
        pthread_mutex_unlock(&lock_);
    }

private:
    pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t arrival_ = PTHREAD_COND_INITIALIZER;
    pthread_cond_t room_ = PTHREAD_COND_INITIALIZER;
    std::array<Message, depth> slots_;
    unsigned head_ = 0, tail_ = 0, count_ = 0;
};

void queueOneTask(benchmark::State &state) {
    const zelMsgQId queue = msgQCreate(depth, messageBytes, ZEL_MSGQ_FIFO);
    Message message{};
    for (auto _ : state) {
        msgQSend(queue, message.data(), messageBytes, WAIT_FOREVER, ZEL_MSG_NORMAL);
        msgQReceive(queue, message.data(), messageBytes, WAIT_FOREVER);
        benchmark::DoNotOptimize(message);
    }
    msgQDelete(queue);
}

void ringOneTask(benchmark::State &state) {
    Ring ring;
    Message message{};
    for (auto _ : state) {
        ring.send(message);
        ring.receive(message);
        benchmark::DoNotOptimize(message);
    }
}

ZEL_ROW("msgQSend + msgQReceive 64 B, one task", "ns", time)
    .ours(queueOneTask)
    .peer("mutex + condition ring", ringOneTask, 1.0, 0.5);

// The measured thread produces; a message whose first byte is set ends the consumer.
void queueStream(benchmark::State &state) {
    const zelMsgQId queue = msgQCreate(depth, messageBytes, ZEL_MSGQ_FIFO);
    {
        Task consumer([&] {
            Message message{};
            while (message[0] == 0) msgQReceive(queue, message.data(), messageBytes, WAIT_FOREVER);
        });
        Message message{};
        for (auto _ : state) msgQSend(queue, message.data(), messageBytes, WAIT_FOREVER, ZEL_MSG_NORMAL);
        message[0] = 1;
        msgQSend(queue, message.data(), messageBytes, WAIT_FOREVER, ZEL_MSG_NORMAL);
    }
    msgQDelete(queue);
}

void ringStream(benchmark::State &state) {
    Ring ring;
    std::thread consumer([&] {
        Message message{};
        while (message[0] == 0) ring.receive(message);
    });
    Message message{};
    for (auto _ : state) ring.send(message);
    message[0] = 1;
    ring.send(message);
    consumer.join();
}

// As deep as the host lets its users make them, usually 10.
long posixDepth() {
    long most = 0;
    if (FILE *limit = fopen("/proc/sys/fs/mqueue/msg_max", "re")) {
        if (fscanf(limit, "%ld", &most) != 1) most = 0;
        fclose(limit);
    }
    return most > 0 && most < depth ? most : depth;
}

void posixStream(benchmark::State &state) {
    const std::string name = "/zelbench" + std::to_string(getpid());
    mq_attr attributes{};
    attributes.mq_maxmsg = posixDepth();
    attributes.mq_msgsize = messageBytes;
    const mqd_t queue = mq_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600, &attributes);
    if (queue == static_cast<mqd_t>(-1)) return state.SkipWithError(strerror(errno));
    mq_unlink(name.c_str());
    std::thread consumer([&] {
        Message message{};
        while (message[0] == 0) mq_receive(queue, message.data(), messageBytes, nullptr);
    });
    Message message{};
    for (auto _ : state) mq_send(queue, message.data(), messageBytes, 0);
    message[0] = 1;
    mq_send(queue, message.data(), messageBytes, 0);
    consumer.join();
    mq_close(queue);
}

ZEL_ROW("message queue 64 B, depth 64, 1 producer 1 consumer", "messages/s", rate)
    .ours(queueStream)
    .peer("mutex + condition ring", ringStream, 2.0, 4.0)
    .peer("POSIX mq", posixStream, 5.0, 8.0);

// ---- Byte rings ----

constexpr int ringBytes = 4096;
constexpr std::size_t pieceBytes = 256;

// Both sides move pieces of the same size and yield when the ring is full or empty.
template <class Put>
void produceBytes(benchmark::State &state, Put put) {
    std::array<char, pieceBytes> piece{};
    std::size_t bytes = 0;
    for (auto _ : state) {
        std::size_t done = 0;
        while ((done += put(piece.data() + done, pieceBytes - done)) < pieceBytes) sched_yield();
        bytes += pieceBytes;
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

template <class Get>
void consumeBytes(const std::atomic<bool> &isOver, Get get) {
    std::array<char, pieceBytes> piece;
    for (;;) {
        if (get(piece.data(), pieceBytes) > 0) {
            benchmark::DoNotOptimize(piece);
            continue;
        }
        if (isOver) return;
        sched_yield();
    }
}

void ourRing(benchmark::State &state) {
    const zelRingId ring = rngCreate(ringBytes);
    std::atomic<bool> isOver{false};
    {
        Task consumer([&] {
            consumeBytes(isOver, [&](char *to, std::size_t n) { return rngBufGet(ring, to, static_cast<int>(n)); });
        });
        produceBytes(state, [&](const char *from, std::size_t n) {
            return static_cast<std::size_t>(rngBufPut(ring, from, static_cast<int>(n)));
        });
        isOver = true;
    }
    rngDelete(ring);
}

void boostRing(benchmark::State &state) {
    boost::lockfree::spsc_queue<char> ring(ringBytes);
    std::atomic<bool> isOver{false};
    std::thread consumer([&] { consumeBytes(isOver, [&](char *to, std::size_t n) { return ring.pop(to, n); }); });
    produceBytes(state, [&](const char *from, std::size_t n) { return ring.push(from, n); });
    isOver = true;
    consumer.join();
}

ZEL_ROW("byte ring, two tasks", "bytes/s", rate).ours(ourRing).peer("boost::lockfree::spsc_queue", boostRing, 1.0);

}  // namespace
