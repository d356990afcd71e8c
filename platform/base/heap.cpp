// A heap of pointers in two parts: a sorted run, and a binary heap over the standard algorithms. An entry
// that does not precede the last of the run is appended to the run; any other goes to the binary heap.
// Entries that are pushed in order, as time-outs of one length are, cost one comparison to push and one to
// pop, and equal entries of the run come out first in, first out. The heap owns entries only in
// heap_destroy2.
#include "tavbase.h"

#include <algorithm>
#include <new>
#include <vector>

struct heap {
    heap_compare compare;
    void (*release)(void *entry);
    std::vector<void *> run; // in order from run_begin on
    size_t run_begin = 0;
    std::vector<void *> others;

    // The standard algorithms keep the greatest entry in front, so the order is reversed.
    auto after() const {
        return [compare = compare](const void *a, const void *b) { return compare(a, b) > 0; };
    }
    size_t count() const { return run.size() - run_begin + others.size(); }
    bool first_is_in_run() const {
        if (run_begin == run.size()) return false;
        return others.empty() || compare(run[run_begin], others.front()) <= 0;
    }

    void push(void *entry) {
        if (run_begin == run.size() || compare(run.back(), entry) <= 0) return run.push_back(entry);
        others.push_back(entry);
        std::push_heap(others.begin(), others.end(), after());
    }
    void *pop_run() {
        void *entry = run[run_begin++];
        if (2 * run_begin >= run.size()) { // at most as many moves as pops
            run.erase(run.begin(), run.begin() + static_cast<std::ptrdiff_t>(run_begin));
            run_begin = 0;
        }
        return entry;
    }
    void *pop_others() {
        std::pop_heap(others.begin(), others.end(), after());
        void *entry = others.back();
        others.pop_back();
        return entry;
    }
};

namespace {

heap_t *create(void (*release)(void *), heap_compare compare) {
    return compare ? new (std::nothrow) heap{compare, release, {}, 0, {}} : nullptr;
}

} // namespace

heap_t *heap_create(heap_compare compare) noexcept { return create(nullptr, compare); }

heap_t *heap_create2(void (*release)(void *entry), heap_compare compare, uint32_t) noexcept {
    return create(release, compare);
}

int heap_push(heap_t *heap, void *entry) noexcept {
    if (!heap || !entry) return -1;
    try {
        heap->push(entry);
    } catch (const std::exception &) {
        return -1;
    }
    return 0;
}

int heap_pop(heap_t *heap, void **entry) noexcept {
    if (!heap || heap->count() == 0) return -1;
    void *first = heap->first_is_in_run() ? heap->pop_run() : heap->pop_others();
    if (entry) *entry = first;
    return 0;
}

void *heap_top(const heap_t *heap) noexcept {
    if (!heap || heap->count() == 0) return nullptr;
    return heap->first_is_in_run() ? heap->run[heap->run_begin] : heap->others.front();
}

uint32_t heap_count(const heap_t *heap) noexcept { return heap ? static_cast<uint32_t>(heap->count()) : 0; }

void heap_destroy(heap_t *heap) noexcept { delete heap; }

void heap_destroy2(heap_t *heap) noexcept {
    if (!heap) return;
    if (heap->release) {
        for (size_t i = heap->run_begin; i < heap->run.size(); ++i) heap->release(heap->run[i]);
        for (void *entry : heap->others) heap->release(entry);
    }
    delete heap;
}
