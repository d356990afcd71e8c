#include "ipc/reassembly_buffers.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <utility>

namespace tavipc {
namespace {

// Mappings are multiples of this many bytes, so that one serves messages of similar size, and count as at
// least that many: 512 MiB of unfinished messages are then at most 4,096 mappings. A process may have 65,530
// (vm.max_map_count).
constexpr size_t kMappingUnit = 128u << 10;
// Below this many bytes a buffer comes from malloc and counts in full. Honest fragmented messages have more
// than 64,000 bytes, so only stray fragments get here.
constexpr size_t kMappedFrom = 16u << 10;
// Bytes of the pages that a piece can touch: 64,000 bytes lie in at most 17 pages of 4 KiB.
constexpr size_t kPieceBytes = 17 * 4096;
// Most bytes in spares: one buffer of the largest message.
constexpr size_t kMostSpareBytes = 64u << 20;
// Seconds after which a mapping is not reused and a spare is released. Filling a fresh buffer of 65 MB costs
// about 20 ms more than filling a spare, so renewing it this rarely costs nothing.
constexpr time_t kMappingLife_s = 10;

// A wall clock that was set back also makes a mapping old: it would keep its spare for as long.
constexpr bool is_old(time_t mapped_s, time_t now_s) {
    return now_s < mapped_s || now_s - mapped_s > kMappingLife_s;
}

constexpr size_t round_up(size_t value, size_t unit) { return (value + unit - 1) / unit * unit; }

} // namespace

// --- one buffer

size_t ReassemblyBuffer::resident_bytes() const {
    if (!memory_) return 0;
    if (!is_mapped()) return capacity_;
    const size_t written =
        uses_huge_pages_ ? huge_touched_.count() * kHugePage : touched_.count() * kPieceBytes;
    return std::clamp(written, kMappingUnit, capacity_);
}

void ReassemblyBuffer::use_huge_pages() {
    prefer_huge_pages(memory_.get(), capacity_);
    uses_huge_pages_ = true;
}

void ReassemblyBuffer::touch(size_t number, size_t length) {
    touched_.set(number);
    const auto base = reinterpret_cast<uintptr_t>(memory_.get()) / kHugePage;
    const auto begin = reinterpret_cast<uintptr_t>(piece(number));
    const uintptr_t last = begin + std::max<size_t>(length, 1) - 1;
    for (uintptr_t page = begin / kHugePage; page <= last / kHugePage; ++page) huge_touched_.set(page - base);
}

// --- the account

ReassemblyBuffers::~ReassemblyBuffers() {
    while (release_spare())
        ;
    assert(resident_bytes_ == 0);
}

ReassemblyBuffer ReassemblyBuffers::allocate(size_t bytes, bool proven, time_t now_s) {
    ReassemblyBuffer buffer;
    if (bytes < kMappedFrom) {
        buffer.capacity_ = std::max<size_t>(bytes, 1);
        buffer.memory_.reset(static_cast<unsigned char *>(std::calloc(buffer.capacity_, 1)));
        return buffer;
    }
    buffer.capacity_ = round_up(bytes, kMappingUnit);
    void *memory = mmap(nullptr, buffer.capacity_, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) return {};
    // Small mappings, too: the kernel merges neighbours, and could then use huge pages across them. It fails
    // only where there are no huge pages.
    madvise(memory, buffer.capacity_, MADV_NOHUGEPAGE);
    buffer.memory_ = {static_cast<unsigned char *>(memory), ReleasePages{buffer.capacity_}};
    buffer.mapped_s_ = now_s;
    if (proven && bytes >= kHugePage) buffer.use_huge_pages();
    return buffer;
}

ReassemblyBuffer ReassemblyBuffers::take(size_t bytes, bool proven, time_t now_s) {
    ReassemblyBuffer buffer = take_spare(bytes, now_s);
    do {
        if (!buffer) buffer = allocate(bytes, proven, now_s);
    } while (!buffer && release_spare());
    resident_bytes_ += buffer.resident_bytes();
    return buffer;
}

void ReassemblyBuffers::touch(ReassemblyBuffer &buffer, size_t piece, size_t length) {
    assert(piece * kFragmentPayload + length <= buffer.capacity_);
    resident_bytes_ -= buffer.resident_bytes();
    buffer.touch(piece, length);
    if (!buffer.uses_huge_pages_ && buffer.touched_.count() * kFragmentPayload >= kHugePage)
        buffer.use_huge_pages();
    resident_bytes_ += buffer.resident_bytes();
}

void ReassemblyBuffers::write(ReassemblyBuffer &buffer, size_t piece, const void *data, size_t length) {
    if (length == 0) return; // it touches nothing, and may lie behind the end
    touch(buffer, piece, length);
    std::memcpy(buffer.piece(piece), data, length);
}

void ReassemblyBuffers::clear(ReassemblyBuffer &buffer, size_t piece, size_t length) {
    if (!buffer.touched_[piece]) return; // the kernel's zeros
    touch(buffer, piece, length);        // it may have been written in part only
    std::memset(buffer.piece(piece), 0, length);
}

void ReassemblyBuffers::drop(ReassemblyBuffer &buffer) { (void)lend(buffer); }

ReassemblyBuffer ReassemblyBuffers::lend(ReassemblyBuffer &buffer) {
    assert(resident_bytes_ >= buffer.resident_bytes());
    resident_bytes_ -= buffer.resident_bytes();
    return std::exchange(buffer, {});
}

// --- spares

size_t ReassemblyBuffers::spare_bytes() const {
    size_t sum = 0;
    for (const auto &spare : spares_) sum += spare.resident_bytes();
    return sum;
}

// The caller accounts for the result.
ReassemblyBuffer ReassemblyBuffers::remove_spare(size_t index) {
    ReassemblyBuffer spare = std::move(spares_[index]);
    std::move(spares_.begin() + index + 1, spares_.begin() + spare_count_, spares_.begin() + index);
    spares_[--spare_count_] = {};
    resident_bytes_ -= spare.resident_bytes();
    return spare;
}

// One that is at most twice as large: a small message shall not keep a large buffer resident.
ReassemblyBuffer ReassemblyBuffers::take_spare(size_t bytes, time_t now_s) {
    release_old_spares(now_s);
    size_t best = spare_count_;
    for (size_t i = 0; i < spare_count_; ++i) {
        const size_t capacity = spares_[i].capacity_;
        if (capacity < bytes || capacity / 2 > round_up(bytes, kMappingUnit)) continue;
        if (best == spare_count_ || capacity < spares_[best].capacity_) best = i;
    }
    return best < spare_count_ && bytes >= kMappedFrom ? remove_spare(best) : ReassemblyBuffer{};
}

void ReassemblyBuffers::give_back(ReassemblyBuffer buffer, time_t now_s) {
    if (!buffer.is_mapped() || is_old(buffer.mapped_s_, now_s)) return;
    while (spare_count_ == kMostSpares || spare_bytes() + buffer.resident_bytes() > kMostSpareBytes)
        if (!release_spare()) return;
    resident_bytes_ += buffer.resident_bytes();
    spares_[spare_count_++] = std::move(buffer);
}

bool ReassemblyBuffers::release_spare() {
    if (spare_count_ == 0) return false;
    (void)remove_spare(0);
    return true;
}

void ReassemblyBuffers::release_old_spares(time_t now_s) {
    for (size_t i = spare_count_; i-- > 0;)
        if (is_old(spares_[i].mapped_s_, now_s)) (void)remove_spare(i);
}

} // namespace tavipc
