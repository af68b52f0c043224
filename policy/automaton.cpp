// Builds the automaton of a pattern: sets of places in its program become states, and states that no text tells apart
// become one.
//
// Places are where the program waits: for a byte, for the end of the text, or for nothing more, because it has matched.
// A state is the set of places where the program can be after what was read; a search begins anew with every byte, so
// what it can reach from its start is in every set. Two states stand for themselves: `dead`, from which nothing
// matches, and `matched`, since what follows a match is of no interest.
//
// A line feed is an ordinary byte, but not quite: inside a match the C library lets "^" hold behind one and "$" in
// front of one, though it was not asked to, and so does this automaton. What reads a line feed is therefore a place
// apart, the only one that can be reached through a "$".
//
// What is built is tables of bounded size, taken before and freed after; nothing grows on the way.
#include "policy/automaton.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "policy/pattern_tree.h"
#include "policy/program.h"
#include "zel/platform.h"

namespace zel::policy {
namespace {

constexpr unsigned maxPlaces = 1024;
constexpr unsigned maxStates = 2000;
constexpr unsigned maxEntries = 65536;  // of the rows: where one begins must fit into its entries
constexpr unsigned hashSlots = 4096;

constexpr unsigned match = 0, matchAtEnd = 1;   // places
constexpr std::uint16_t dead = 0, matched = 1;  // states
constexpr std::uint16_t none = UINT16_MAX;

using Word = std::uint64_t;

// Zeroed memory for the time of building.
template <class Item>
class Room {
public:
    Room() = default;
    Room(const Room &) = delete;
    ~Room() { zelMC_free("automaton", __LINE__, items_); }

    bool take(std::size_t count) {
        items_ = static_cast<Item *>(zelMC_calloc("automaton", __LINE__, count, sizeof(Item)));
        return items_ != nullptr;
    }
    Item &operator[](std::size_t i) const { return items_[i]; }

private:
    Item *items_ = nullptr;
};

std::uint32_t mix(std::uint32_t hash, Word word) {
    const Word product = (hash ^ word) * 0x9e3779b97f4a7c15;
    return static_cast<std::uint32_t>(product >> 32 ^ product);
}

}  // namespace

class AutomatonBuilder {
public:
    AutomatonBuilder(const PatternTree &tree, const Program &program) : tree_(tree), program_(program) {}

    Automaton *build() {
        findClasses();
        if (!findPlaces() || !takeRoom()) return nullptr;
        followPlaces();
        if (!makeStates()) return nullptr;
        mergeStates();
        return write();
    }

private:
    // ---- Classes of bytes -------------------------------------------------------------------------------------------

    void findClasses() {
        classes_ = 1;
        splitClasses('\n');
        ByteSet seen[(firstSet + 256) / 256] = {};
        for (unsigned i = 0; i < program_.count; ++i) {
            const Instruction &instruction = program_.code[i];
            if (instruction.operation != Operation::bytes) continue;
            ByteSet &half = seen[instruction.symbol / 256];
            if (!half.has(instruction.symbol % 256)) splitClasses(instruction.symbol);
            half.add(instruction.symbol % 256);
        }
        for (unsigned byte = 0; byte < 256; ++byte) byteOf_[classOf_[byte]] = static_cast<std::uint8_t>(byte);
    }

    void splitClasses(unsigned symbol) {
        std::uint16_t renamed[2 * 256];
        std::fill(renamed, renamed + 2 * 256, none);
        classes_ = 0;
        for (unsigned byte = 0; byte < 256; ++byte) {
            std::uint16_t &name = renamed[2 * classOf_[byte] + tree_.contains(symbol, byte)];
            if (name == none) name = static_cast<std::uint16_t>(classes_++);
            classOf_[byte] = static_cast<std::uint8_t>(name);
        }
    }

    // ---- Places -----------------------------------------------------------------------------------------------------

    bool findPlaces() {
        places_ = matchAtEnd + 1;
        for (std::uint16_t i = 0; i < program_.count && places_ + 2 <= maxPlaces; ++i) {
            if (program_.code[i].operation != Operation::bytes) continue;
            placeOf_[i] = static_cast<std::uint16_t>(places_++);
            if (tree_.contains(program_.code[i].symbol, '\n'))
                lineFeedPlaceOf_[i] = static_cast<std::uint16_t>(places_++);
        }
        words_ = (places_ + 63) / 64;
        return places_ + 2 <= maxPlaces;
    }

    bool takeRoom() {
        return follow_.take(places_ * words_) && readClasses_.take(places_) && sets_.take(maxStates * words_) &&
               next_.take(maxStates * classes_) && targets_.take(classes_ * words_) && again_.take(words_) &&
               slots_.take(hashSlots) && block_.take(maxStates) && merged_.take(maxStates) &&
               matchesAtEnd_.take(maxStates);
    }

    Word *setOf(unsigned state) { return &sets_[state * words_]; }
    static bool has(const Word *set, unsigned place) { return (set[place / 64] >> place % 64 & 1) != 0; }
    static void add(Word *set, unsigned place) { set[place / 64] |= Word{1} << place % 64; }

    // Adds the places that can be reached from an instruction without reading.
    void reach(Word *set, std::uint16_t from, bool isAtBegin) {
        ++visit_;
        unsigned depth = 0;
        const auto go = [&](unsigned to, bool isBehindEnd) {
            const unsigned step = 2 * to + isBehindEnd;
            if (visited_[step] != visit_) pending_[depth++] = static_cast<std::uint16_t>(step);
            visited_[step] = visit_;
        };
        for (go(from, false); depth > 0;) {
            const unsigned step = pending_[--depth], at = step / 2;
            const bool isBehindEnd = step % 2 != 0;
            const Instruction &now = program_.code[at];
            switch (now.operation) {
                case Operation::split:
                    go(now.other, isBehindEnd);
                    go(now.next, isBehindEnd);
                    break;
                case Operation::begin:
                    if (isAtBegin) go(now.next, isBehindEnd);
                    break;
                case Operation::end:
                    go(now.next, true);
                    break;
                case Operation::bytes:
                    if (!isBehindEnd) add(set, placeOf_[at]);
                    if (lineFeedPlaceOf_[at]) add(set, lineFeedPlaceOf_[at]);
                    break;
                case Operation::match:
                    add(set, isBehindEnd ? matchAtEnd : match);
            }
        }
    }

    void followPlaces() {
        const unsigned lineFeed = classOf_[unsigned{'\n'}];
        for (std::uint16_t i = 0; i < program_.count; ++i) {
            const Instruction &instruction = program_.code[i];
            if (instruction.operation != Operation::bytes) continue;
            for (unsigned c = 0; c < classes_; ++c)
                if (c != lineFeed && tree_.contains(instruction.symbol, byteOf_[c])) readClasses_[placeOf_[i]].add(c);
            reach(&follow_[placeOf_[i] * words_], instruction.next, false);
            if (!lineFeedPlaceOf_[i]) continue;
            readClasses_[lineFeedPlaceOf_[i]].add(lineFeed);
            reach(&follow_[lineFeedPlaceOf_[i] * words_], instruction.next, true);
        }
        reach(&again_[0], program_.start, false);
    }

    // ---- States -----------------------------------------------------------------------------------------------------

    bool makeStates() {
        states_ = matched + 1;
        slots_[hashOf(setOf(dead))] = dead + 1;
        for (unsigned c = 0; c < classes_; ++c) next_[matched * classes_ + c] = matched;
        matchesAtEnd_[matched] = true;

        Word *first = &targets_[0];
        reach(first, program_.start, true);
        start_ = stateOf(first);
        for (unsigned state = matched + 1; state < states_; ++state)
            if (!makeRow(state)) return false;
        return true;
    }

    bool makeRow(unsigned state) {
        for (unsigned c = 0; c < classes_; ++c) std::copy_n(&again_[0], words_, &targets_[c * words_]);
        for (unsigned word = 0; word < words_; ++word)
            for (Word left = setOf(state)[word]; left; left &= left - 1)
                addTargets(word * 64 + static_cast<unsigned>(__builtin_ctzll(left)));
        for (unsigned c = 0; c < classes_; ++c) {
            const std::uint16_t target = stateOf(&targets_[c * words_]);
            if (target == none) return false;
            next_[state * classes_ + c] = target;
        }
        return true;
    }

    void addTargets(unsigned place) {
        for (unsigned c = 0; c < classes_; ++c)
            for (unsigned word = 0; readClasses_[place].has(c) && word < words_; ++word)
                targets_[c * words_ + word] |= follow_[place * words_ + word];
    }

    std::uint32_t hashOf(const Word *set) const {
        std::uint32_t hash = 0;
        for (unsigned word = 0; word < words_; ++word) hash = mix(hash, set[word]);
        return hash % hashSlots;
    }

    // The state of a set, which is made when it is new; none when there are too many.
    std::uint16_t stateOf(const Word *set) {
        if (has(set, match)) return matched;
        std::uint32_t slot = hashOf(set);
        for (; slots_[slot]; slot = (slot + 1) % hashSlots) {
            const auto state = static_cast<std::uint16_t>(slots_[slot] - 1);
            if (std::equal(set, set + words_, setOf(state))) return state;
        }
        if (states_ == maxStates) return none;
        const auto state = static_cast<std::uint16_t>(states_++);
        slots_[slot] = static_cast<std::uint16_t>(state + 1);
        std::copy_n(set, words_, setOf(state));
        matchesAtEnd_[state] = has(set, matchAtEnd);
        return state;
    }

    // ---- Merging ----------------------------------------------------------------------------------------------------

    // From "matches at the end" on, states are told apart by what they lead to, until that tells no more apart.
    void mergeStates() {
        for (unsigned state = 0; state < states_; ++state) block_[state] = matchesAtEnd_[state];
        unsigned before;
        do {
            before = blocks_;
            splitBlocks();
            std::copy_n(&merged_[0], states_, &block_[0]);
        } while (blocks_ != before);
    }

    void splitBlocks() {
        blocks_ = 0;
        std::fill(&slots_[0], &slots_[0] + hashSlots, std::uint16_t{0});
        for (unsigned state = 0; state < states_; ++state) {
            std::uint32_t slot = blockHash(state) % hashSlots;
            while (slots_[slot] && !sameBlocks(state, slots_[slot] - 1u)) slot = (slot + 1) % hashSlots;
            const bool isNew = !slots_[slot];
            if (isNew) slots_[slot] = static_cast<std::uint16_t>(state + 1);
            merged_[state] = isNew ? static_cast<std::uint16_t>(blocks_++) : merged_[slots_[slot] - 1u];
        }
    }

    std::uint16_t blockAfter(unsigned state, unsigned c) const { return block_[next_[state * classes_ + c]]; }

    std::uint32_t blockHash(unsigned state) const {
        std::uint32_t hash = mix(0, block_[state]);
        for (unsigned c = 0; c < classes_; ++c) hash = mix(hash, blockAfter(state, c));
        return hash;
    }
    bool sameBlocks(unsigned state, unsigned other) const {
        for (unsigned c = 0; c < classes_; ++c)
            if (blockAfter(state, c) != blockAfter(other, c)) return false;
        return block_[state] == block_[other];
    }

    // ---- The result -------------------------------------------------------------------------------------------------

    // Rows in the order that matching relies on: dead, those that do not match at the end, those that do, matched.
    unsigned orderRows(std::uint16_t *rowOf) {
        unsigned rows = 0, notMatching = 0;
        std::fill(rowOf, rowOf + blocks_, none);
        const auto give = [&](unsigned state) {
            std::uint16_t &row = rowOf[block_[state]];
            if (row == none) row = static_cast<std::uint16_t>(rows++);
        };
        give(dead);
        for (unsigned state = 0; state < states_; ++state)
            if (!matchesAtEnd_[state]) give(state);
        notMatching = rows;
        for (unsigned state = 0; state < states_; ++state)
            if (matchesAtEnd_[state] && block_[state] != block_[matched]) give(state);
        give(matched);
        return notMatching;
    }

    Automaton *write() {
        const std::size_t entries = std::size_t{blocks_} * classes_;
        if (entries > maxEntries) return nullptr;
        void *memory = zelMC_calloc("automaton", __LINE__, 1, sizeof(Automaton) + entries * sizeof(std::uint16_t));
        auto *automaton = static_cast<Automaton *>(memory);
        if (!automaton) return nullptr;
        std::uint16_t *rowOf = &merged_[0];
        const auto begins = [&](unsigned row) { return static_cast<std::uint16_t>(row * classes_); };
        automaton->firstMatching_ = begins(orderRows(rowOf));
        automaton->start_ = begins(rowOf[block_[start_]]);
        automaton->matched_ = begins(blocks_ - 1);
        automaton->classes_ = static_cast<std::uint16_t>(classes_);
        memcpy(automaton->classOf_, classOf_, sizeof classOf_);
        for (unsigned state = 0; state < states_; ++state)
            for (unsigned c = 0; c < classes_; ++c)
                automaton->rows_[begins(rowOf[block_[state]]) + c] = begins(rowOf[blockAfter(state, c)]);
        return automaton;
    }

    const PatternTree &tree_;
    const Program &program_;
    unsigned classes_ = 0, places_ = 0, words_ = 0, states_ = 0, blocks_ = 0;
    std::uint16_t start_ = dead;
    std::uint8_t classOf_[256] = {};
    std::uint8_t byteOf_[256] = {};  // one byte of each class

    std::uint16_t placeOf_[Program::capacity] = {};
    std::uint16_t lineFeedPlaceOf_[Program::capacity] = {};
    std::uint16_t visited_[2 * Program::capacity] = {};
    std::uint16_t pending_[2 * Program::capacity] = {};
    std::uint16_t visit_ = 0;

    Room<Word> follow_;          // of each place: the places behind it
    Room<ByteSet> readClasses_;  // of each place: the classes it reads
    Room<Word> again_;           // the places a search begins at, behind the first byte
    Room<Word> sets_, targets_;
    Room<std::uint16_t> next_, slots_, block_, merged_;
    Room<bool> matchesAtEnd_;
};

Automaton *Automaton::build(const PatternTree &tree) {
    if (!tree.isComplete()) return nullptr;
    Program *program = Program::compile(tree);
    if (!program) return nullptr;
    void *memory = zelMC_calloc("automaton", __LINE__, 1, sizeof(AutomatonBuilder));
    Automaton *automaton = nullptr;
    if (memory) {
        auto *builder = new (memory) AutomatonBuilder(tree, *program);
        automaton = builder->build();
        builder->~AutomatonBuilder();
        zelMC_free("automaton", __LINE__, memory);
    }
    Program::destroy(program);
    return automaton;
}

void Automaton::destroy(Automaton *automaton) {
    zelMC_free("automaton", __LINE__, automaton);
}

std::size_t Automaton::bytes() const {
    return sizeof(Automaton) + (std::size_t{matched_} + classes_) * sizeof(std::uint16_t);
}

}  // namespace zel::policy
