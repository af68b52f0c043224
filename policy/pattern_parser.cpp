// Reads a pattern into a tree, and weighs it on the way.
//
// The dialect: anchors are anchors wherever they stand and cannot be repeated; a repetition repeats what was repeated
// before it; an empty alternative and an empty group match the empty text; ")" without "(" and "}" are characters; in
// brackets a backslash is a character. "." and "^" in brackets are as in the C library: "." matches all but the zero
// byte, a negated set matches that too.
//
// What does not parse is no error here: the C library says what is wrong with it. Whatever this parser does not know
// for certain it marks as foreign, and only makes sure that it finds the end of it. But everything up to the place
// where the C library gives up is weighed, since it writes repetitions out while it reads: the pattern is refused as
// soon as one part of it is too heavy.
//
// Recursion is as deep as groups nest, with a few repetitions on top of each other: those by "*", "?" and "+" are
// merged into one, and of intervals above 1 only thirteen fit into the limit.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "policy/pattern.h"
#include "policy/pattern_tree.h"
#include "zel/platform.h"

namespace zel::policy {

using namespace std::string_view_literals;

namespace {

constexpr std::uint32_t highestBound = 0x7fff;
constexpr unsigned lastReference = 9;

// Pairs of first and last byte, those of the C locale.
constexpr struct {
    std::string_view name, ranges;
} byteClasses[] = {
    {"alnum", "09AZaz"},   {"alpha", "AZaz"},   {"blank", "\t\t  "}, {"cntrl", "\0\x1f\x7f\x7f"sv},
    {"digit", "09"},       {"graph", "!~"},     {"lower", "az"},     {"print", " ~"},
    {"punct", "!/:@[`{~"}, {"space", "\t\r  "}, {"upper", "AZ"},     {"xdigit", "09AFaf"},
};

std::uint16_t bit(unsigned number) {
    return static_cast<std::uint16_t>(1u << number);
}
unsigned code(char c) {
    return static_cast<unsigned char>(c);
}

}  // namespace

// Every part of a pattern has a node and a weight, both of what it is with intervals written out.
struct Part {
    std::uint16_t node;
    bool mayBeEmpty;
    bool hasAnchor, hasBoundary;
    std::uint16_t groups, references;  // bit n: it has group n, or refers back to it, from 1 to 9
    std::uint32_t places;
    std::uint32_t repetitions;  // the highest product of nested bounds
    // What may be passed over in one go: from the front, from the back, and at most.
    std::uint32_t front, back, inside;
};

class PatternParser {
public:
    // The tree of an expanded pattern, which is then the tree's; null without memory.
    static PatternTree *parse(char *expanded) {
        // A character makes three nodes at most: itself, and the list and the sequence that begin with it.
        const std::size_t nodes = 3 * strlen(expanded) + 8;
        void *memory = zelMC_calloc("pattern_parser", __LINE__, 1, sizeof(PatternTree) + nodes * sizeof(Node));
        if (!memory) {
            zelMC_free("pattern", __LINE__, expanded);
            return nullptr;
        }
        auto *tree = static_cast<PatternTree *>(memory);
        tree->text_ = expanded;
        PatternParser parser(*tree);
        const Part whole = parser.choice(0);
        tree->root_ = whole.node;
        parser.checkReferences(whole);
        return tree;
    }

private:
    explicit PatternParser(PatternTree &tree) : tree_(tree), rest_(tree.text_) {}

    // ---- Reading ----------------------------------------------------------------------------------------------------

    bool sees(char c) const { return !rest_.empty() && rest_[0] == c; }
    bool seesOneOf(std::string_view characters) const {
        return !rest_.empty() && characters.find(rest_[0]) != std::string_view::npos;
    }
    char take() {
        const char c = rest_.empty() ? '\0' : rest_[0];
        rest_.remove_prefix(rest_.empty() ? 0 : 1);
        return c;
    }
    bool takes(char c) { return sees(c) && take() == c; }

    void markForeign() { tree_.isForeign_ = true; }
    // The rest is not read; whatever is under way comes to its end.
    void stop() {
        markForeign();
        rest_ = {};
    }
    void refuse(const char *why) {
        if (!tree_.refusal_) tree_.refusal_ = why;
        rest_ = {};
    }

    // ---- Building and weighing --------------------------------------------------------------------------------------

    Node &at(std::uint16_t number) { return tree_.nodes_[number]; }

    std::uint16_t make(Kind kind) {
        const std::uint16_t number = ++tree_.nodeCount_;
        at(number).kind = kind;
        return number;
    }
    Part nothing() { return {make(Kind::nothing), true, false, false, 0, 0, 0, 1, 0, 0, 0}; }
    Part anchor(Kind kind) {
        return {make(kind), true, true, false, 0, 0, 1, 1, anchorPassedOver, anchorPassedOver, anchorPassedOver};
    }
    Part bytes(unsigned symbol) {
        const Part part{make(Kind::bytes), false, false, false, 0, 0, 1, 1, 0, 0, 0};
        at(part.node).symbol = static_cast<std::uint16_t>(symbol);
        return part;
    }
    Part set(const ByteSet &wanted) {
        unsigned number = 0;
        while (number < tree_.setCount_ && !(tree_.sets_[number] == wanted)) ++number;
        if (number == PatternTree::maxSets) {
            markForeign();
            number = 0;
        } else if (number == tree_.setCount_) {
            tree_.sets_[tree_.setCount_++] = wanted;
        }
        return bytes(firstSet + number);
    }
    // What only the C library knows to match; the node says nothing of it.
    Part foreign() {
        markForeign();
        return bytes(0);
    }

    void adopt(std::uint16_t parent, std::uint16_t child) {
        at(child).previous = at(parent).last;
        at(parent).last = child;
    }

    Part &weighed(Part &part) {
        if (part.repetitions > mostRepetitions)
            refuse("intervals nest to more than 10000 repetitions");
        else if (part.places > mostPlaces)
            refuse("too large with its intervals written out");
        else if (part.inside > mostPassedOver)
            refuse("too much of it may be passed over");
        return part;
    }

    static void weighBoth(Part &part, const Part &next) {
        part.hasAnchor = part.hasAnchor || next.hasAnchor;
        part.hasBoundary = part.hasBoundary || next.hasBoundary;
        part.groups |= next.groups;
        part.references |= next.references;
        part.repetitions = std::max(part.repetitions, next.repetitions);
    }

    static void weighNext(Part &before, const Part &next) {
        before.inside = std::max({before.inside, next.inside, before.back + next.front});
        if (before.mayBeEmpty) before.front += next.front;
        before.back = next.mayBeEmpty ? before.back + next.back : next.back;
        before.mayBeEmpty = before.mayBeEmpty && next.mayBeEmpty;
        weighBoth(before, next);
        before.places += next.places;
    }

    // Of alternatives that read something, one is passed through; those that may be empty are all gone through.
    static void weighAlternative(Part &whole, const Part &next) {
        const bool adds = whole.mayBeEmpty || next.mayBeEmpty;
        whole.front = adds ? whole.front + next.front : std::max(whole.front, next.front);
        whole.back = adds ? whole.back + next.back : std::max(whole.back, next.back);
        whole.inside = std::max({whole.inside, next.inside, whole.front, whole.back});
        whole.mayBeEmpty = adds;
        weighBoth(whole, next);
        whole.places += next.places + 1;
    }

    // "+" is written out as two copies, as "{1,}" is.
    static unsigned copiesOf(unsigned least, unsigned most) {
        return std::max(1u, most == unbounded ? least + 1 : most);
    }

    static Part weighRepeated(const Part &part, unsigned least, unsigned most) {
        const unsigned copies = copiesOf(least, most);
        Part whole = part;
        whole.places *= copies;
        whole.repetitions *= copies;
        whole.mayBeEmpty = part.mayBeEmpty || least == 0;
        if (whole.mayBeEmpty) {
            std::uint32_t copy = part.mayBeEmpty ? std::max(part.places, part.inside) : part.front + 1;
            if (part.mayBeEmpty && most == unbounded && copy >= anchorPassedOver) copy *= emptyLoopPassedOver;
            whole.front = copy * copies + (part.mayBeEmpty ? 0 : part.back);
            whole.back = whole.front;
        } else if (most != unbounded) {
            whole.back += (most - least) * (part.front + 1);  // the copies behind the least
        }
        const bool meetsItself = copies > 1 || most == unbounded;
        whole.inside = std::max({part.inside, whole.front, whole.back, meetsItself ? part.back + part.front : 0});
        return whole;
    }

    // The C library tries out what the groups may be that are referred to, all with all. And where a reference is
    // repeated, it may match for ever, or run out of stack, unless what it refers to is there once and is not empty.
    void checkReferences(const Part &whole) {
        if (whole.references & (whole.references - 1)) refuse("refers back to more than one group");
        if (repeatedReferences_ & (emptyGroups_ | repeatedGroups_))
            refuse("repeats a reference to what may be empty or is repeated");
    }

    // ---- The grammar ------------------------------------------------------------------------------------------------

    Part choice(unsigned depth) {
        Part whole = sequence(depth);
        if (!sees('|')) return whole;
        const std::uint16_t list = make(Kind::choice);
        adopt(list, whole.node);
        whole.node = list;
        while (takes('|')) {
            const Part next = sequence(depth);
            adopt(list, next.node);
            weighAlternative(whole, next);
            weighed(whole);
        }
        return whole;
    }

    Part sequence(unsigned depth) {
        Part whole = nothing();
        at(whole.node).kind = Kind::sequence;
        while (!rest_.empty() && !sees('|') && !(depth > 0 && sees(')'))) {
            const Part next = piece(depth);
            adopt(whole.node, next.node);
            weighNext(whole, next);
            weighed(whole);
        }
        return whole;
    }

    // Behind an anchor, a repetition has nothing to repeat.
    Part piece(unsigned depth) {
        if (takes('^')) return anchor(Kind::begin);
        if (takes('$')) return anchor(Kind::end);
        Part part = atom(depth);
        while (seesOneOf("*+?{")) part = repeated(part);
        return part;
    }

    Part atom(unsigned depth) {
        switch (const char c = take()) {
            case '(':
                return group(depth + 1);
            case '[':
                return brackets();
            case '.':
                return anyByte();
            case '\\':
                return escaped();
            case '*':
            case '+':
            case '?':
            case '{':
                stop();
                return nothing();
            default:
                return bytes(code(c));
        }
    }

    Part group(unsigned depth) {
        if (depth > deepestGroup) {
            refuse("parentheses nest deeper than 100");
            return nothing();
        }
        const unsigned number = ++groups_;
        Part part = choice(depth);
        ++part.places;
        if (number <= lastReference) part.groups |= bit(number);
        if (number <= lastReference && part.mayBeEmpty) emptyGroups_ |= bit(number);
        if (!takes(')')) stop();
        return part;
    }

    Part anyByte() {
        ByteSet all{};
        all.add(1, 255);
        return set(all);
    }

    Part escaped() {
        if (rest_.empty()) {
            stop();
            return nothing();
        }
        for (unsigned number = 1; number <= lastReference; ++number)
            if (takes(static_cast<char>('0' + number))) return reference(number);
        if (seesOneOf("bB<>`'")) return boundary();
        if (seesOneOf("wWsS")) {
            take();
            return foreign();
        }
        return bytes(code(take()));
    }

    // An anchor between words, or at an end of the text, of which the C library makes up to two.
    Part boundary() {
        take();
        Part part = foreign();
        part.mayBeEmpty = part.hasAnchor = part.hasBoundary = true;
        part.front = part.back = part.inside = 2 * anchorPassedOver;
        return part;
    }

    Part reference(unsigned number) {
        Part part = foreign();
        part.references = bit(number);
        part.mayBeEmpty = (emptyGroups_ & bit(number)) != 0;
        if (part.mayBeEmpty) part.front = part.back = part.inside = anchorPassedOver;
        return part;
    }

    // ---- Repetitions ------------------------------------------------------------------------------------------------

    Part repeated(const Part &part) {
        unsigned least = 0, most = unbounded;
        const char c = take();
        if (c == '+') least = 1;
        if (c == '?') most = 1;
        if (c == '{' && !interval(least, most)) {
            stop();
            return part;
        }
        repeatedGroups_ |= part.groups;
        repeatedReferences_ |= part.references;
        if (part.hasAnchor && copiesOf(least, most) > 1) markForeign();
        if (part.hasBoundary && part.mayBeEmpty) refuse("repeats a boundary of words where it may read nothing");
        Part whole = weighRepeated(part, least, most);
        whole.node = most == 0 ? make(Kind::nothing) : repeatNode(part.node, least, most);
        return weighed(whole);
    }

    // Repetitions of at most one, or of any number, of the same kind are merged into one.
    std::uint16_t repeatNode(std::uint16_t child, unsigned least, unsigned most) {
        const auto isSimple = [](unsigned low, unsigned high) { return low <= 1 && (high == 1 || high == unbounded); };
        std::uint16_t number = child;
        if (at(child).kind == Kind::repeat && isSimple(at(child).least, at(child).most) && isSimple(least, most)) {
            least = std::min<unsigned>(least, at(child).least);
            most = std::max<unsigned>(most, at(child).most);
        } else {
            number = make(Kind::repeat);
            adopt(number, child);
        }
        at(number).least = static_cast<std::uint16_t>(least);
        at(number).most = static_cast<std::uint16_t>(most);
        return number;
    }

    // What stands behind "{": "m}", "m,}", "m,n}" or ",n}".
    bool interval(unsigned &least, unsigned &most) {
        const bool hasLeast = number(least);
        if (!hasLeast && !seesComma()) return false;
        most = least;
        if (takesComma() && !number(most)) most = unbounded;
        return least <= most && least <= highestBound && (most <= highestBound || most == unbounded) && takes('}');
    }

    // Here the C library takes an escaped comma or zero for what it is.
    bool seesComma() const { return rest_.starts_with(',') || rest_.starts_with("\\,"); }
    bool takesComma() {
        const bool seen = seesComma();
        if (seen && take() == '\\') take();
        return seen;
    }
    bool number(unsigned &value) {
        value = 0;
        bool hasDigits = false;
        for (; seesOneOf("0123456789") || rest_.starts_with("\\0"); hasDigits = true) {
            takes('\\');
            value = std::min(highestBound + 1, value * 10 + code(take()) - '0');
        }
        return hasDigits;
    }

    // ---- Brackets ---------------------------------------------------------------------------------------------------

    Part brackets() {
        ByteSet wanted{};
        const bool isNegated = takes('^');
        for (bool isFirst = true; isFirst || !sees(']'); isFirst = false) {
            if (rest_.empty()) {
                stop();
                return nothing();
            }
            element(wanted, isFirst);
        }
        take();
        if (isNegated) wanted.negate();
        return set(wanted);
    }

    void element(ByteSet &wanted, bool isFirst) {
        const char c = take();
        if (c == '[' && seesOneOf(":=.")) return symbol(wanted);
        if (sees('-') && rest_.size() > 1 && rest_[1] != ']') return range(wanted, c, isFirst);
        if (c == '-' && !isFirst && !sees(']')) markForeign();
        wanted.add(code(c));
    }

    void range(ByteSet &wanted, char first, bool isFirst) {
        take();
        const char last = take();
        const bool isSymbol = last == '[' && seesOneOf(":=.");
        if (isSymbol || code(last) < code(first) || (first == '-' && !isFirst) || (last == '-' && !sees(']')))
            markForeign();
        if (isSymbol) return symbol(wanted);
        wanted.add(code(first), code(last));
    }

    // What stands behind "[" up to "]": a class of bytes, or something that only the C library knows.
    void symbol(ByteSet &wanted) {
        const char end[] = {take(), ']', '\0'};
        const std::string_view name = rest_.substr(0, rest_.find(end));
        rest_.remove_prefix(std::min(rest_.size(), name.size() + 2));
        for (const auto &known : byteClasses) {
            if (end[0] != ':' || name != known.name) continue;
            for (std::size_t i = 0; i < known.ranges.size(); i += 2)
                wanted.add(code(known.ranges[i]), code(known.ranges[i + 1]));
            return;
        }
        markForeign();
    }

    PatternTree &tree_;
    std::string_view rest_;
    unsigned groups_ = 0;
    std::uint16_t emptyGroups_ = 0;  // those that may be empty
    std::uint16_t repeatedGroups_ = 0, repeatedReferences_ = 0;
};

PatternTree *PatternTree::read(const char *pattern, char *error, std::size_t errorBytes) {
    const char *refusal = "no memory";
    PatternTree *tree = nullptr;
    if (strnlen(pattern, longestPattern + 1) > longestPattern)
        refusal = "longer than 1024 characters";
    else if (char *expanded = expandUnderscores(pattern))
        tree = PatternParser::parse(expanded);
    if (tree && !tree->refusal_) return tree;
    snprintf(error, errorBytes, "%s", tree ? tree->refusal_ : refusal);
    destroy(tree);
    return nullptr;
}

void PatternTree::destroy(PatternTree *tree) {
    if (tree) zelMC_free("pattern", __LINE__, tree->text_);
    zelMC_free("pattern_parser", __LINE__, tree);
}

}  // namespace zel::policy
