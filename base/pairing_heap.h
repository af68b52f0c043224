// An intrusive pairing heap: a set of records that always knows its first one, where any record may leave.
//
// The records form one tree in which none comes before its parent, so the first is the root. The children of a record
// are a chain; a new record is compared with the root once and becomes its child or its parent. All other work waits
// until a record with children leaves: they are paired, two by two, and the pairs folded into one tree. That takes
// O(log n) steps per removal, averaged over any sequence of calls; a single one may take as many as there were
// insertions since the root left last. Nothing is allocated, nothing recurses.
//
// A heap is a view of a root pointer that its owner keeps, null when the heap is empty:
//
//     struct Timer { HeapLinks<Timer> links; ... };
//     bool isEarlier(const Timer &a, const Timer &b);    // a strict total order
//     PairingHeap<Timer, &Timer::links, isEarlier>(root).insert(timer);
#pragma once

#include <utility>

namespace zel {

// The place of a record in its heap.
template <class T>
struct HeapLinks {
    T *child = nullptr;     // the first of the chain of children
    T *next = nullptr;      // in the parent's chain
    T *previous = nullptr;  // in the same chain; of its first record the parent; null at the root
};

template <class T, HeapLinks<T> T::*links, bool (*comesBefore)(const T &, const T &)>
class PairingHeap {
public:
    explicit PairingHeap(T *&root) : root_(root) {}

    T *first() const { return root_; }

    void insert(T &record) {
        record.*links = {};
        root_ = root_ != nullptr ? meld(root_, &record) : &record;
    }

    void remove(T &record) {
        T *orphans = foldAll(pairAll((record.*links).child));
        if (&record == root_) {
            root_ = orphans;
            return;
        }
        cut(record);
        if (orphans != nullptr) meld(root_, orphans);  // none of them comes before the root
    }

private:
    // Joins two trees; their roots' own chains are of no interest any more. The root of both.
    static T *meld(T *a, T *b) {
        if (comesBefore(*b, *a)) std::swap(a, b);
        T *&child = (a->*links).child;
        b->*links = {(b->*links).child, child, a};
        if (child != nullptr) (child->*links).previous = b;
        child = b;
        return a;
    }

    // Joins the trees of a chain two by two; the results, chained, the last pair first.
    static T *pairAll(T *chain) {
        T *pairs = nullptr;
        while (chain != nullptr) {
            T *a = chain, *b = (a->*links).next;
            chain = b != nullptr ? (b->*links).next : nullptr;
            T *pair = b != nullptr ? meld(a, b) : a;
            (pair->*links).next = pairs;
            pairs = pair;
        }
        return pairs;
    }

    // Joins the trees of a chain to one tree with a root of its own; null for none.
    static T *foldAll(T *chain) {
        T *tree = nullptr;
        while (chain != nullptr) {
            T *rest = (chain->*links).next;
            tree = tree != nullptr ? meld(tree, chain) : chain;
            chain = rest;
        }
        if (tree != nullptr) (tree->*links).next = (tree->*links).previous = nullptr;
        return tree;
    }

    void cut(T &record) {
        const HeapLinks<T> &own = record.*links;
        HeapLinks<T> &before = own.previous->*links;
        (before.child == &record ? before.child : before.next) = own.next;
        if (own.next != nullptr) (own.next->*links).previous = own.previous;
    }

    T *&root_;
};

}  // namespace zel
