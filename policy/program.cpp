// From the tree to the program: every part is compiled with the place to go on at when it has matched, so the program
// grows from its end, and intervals are written out.
#include "policy/program.h"

#include "zel/platform.h"

namespace zel::policy {
namespace {

class Compiler {
public:
    Compiler(Program &program, const PatternTree &tree) : program_(program), tree_(tree) {}

    bool compile() {
        const std::uint16_t match = emit(Operation::match, 0);
        program_.start = part(tree_.root(), match);
        return !isFull_;
    }

private:
    std::uint16_t emit(Operation operation, std::uint16_t next, std::uint16_t other = 0, std::uint16_t symbol = 0) {
        if (program_.count == Program::capacity) {
            isFull_ = true;
            return 0;
        }
        program_.code[program_.count] = {operation, symbol, next, other};
        return program_.count++;
    }

    std::uint16_t part(std::uint16_t number, std::uint16_t next) {
        const Node &node = tree_.node(number);
        switch (node.kind) {
            case Kind::bytes:
                return emit(Operation::bytes, next, 0, node.symbol);
            case Kind::begin:
                return emit(Operation::begin, next);
            case Kind::end:
                return emit(Operation::end, next);
            case Kind::sequence:
                for (std::uint16_t child = node.last; child; child = tree_.node(child).previous)
                    next = part(child, next);
                return next;
            case Kind::choice:
                return choice(node, next);
            case Kind::repeat:
                return repeat(node, next);
            case Kind::nothing:
                break;
        }
        return next;
    }

    std::uint16_t choice(const Node &node, std::uint16_t next) {
        std::uint16_t entry = part(node.last, next);
        for (std::uint16_t child = tree_.node(node.last).previous; child; child = tree_.node(child).previous)
            entry = emit(Operation::split, part(child, next), entry);
        return entry;
    }

    std::uint16_t repeat(const Node &node, std::uint16_t next) {
        unsigned least = node.least;
        std::uint16_t entry = next;
        if (node.most == unbounded) {
            const std::uint16_t loop = emit(Operation::split, 0, next);
            const std::uint16_t body = part(node.last, loop);
            program_.code[loop].next = body;
            entry = least > 0 ? body : loop;
            if (least > 0) --least;
        } else {
            for (unsigned i = least; i < node.most && !isFull_; ++i)
                entry = emit(Operation::split, part(node.last, entry), next);
        }
        for (unsigned i = 0; i < least && !isFull_; ++i) entry = part(node.last, entry);
        return entry;
    }

    Program &program_;
    const PatternTree &tree_;
    bool isFull_ = false;
};

}  // namespace

Program *Program::compile(const PatternTree &tree) {
    auto *program = static_cast<Program *>(zelMC_calloc("program", __LINE__, 1, sizeof(Program)));
    if (!program || Compiler(*program, tree).compile()) return program;
    destroy(program);
    return nullptr;
}

void Program::destroy(Program *program) {
    zelMC_free("program", __LINE__, program);
}

}  // namespace zel::policy
