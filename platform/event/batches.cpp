#include "batches.h"

#include <utility>

#include "clock.h"

namespace tavcl_ev {

void Batches::set(uint32_t most, uint32_t most_us) noexcept {
    send_all();
    most_ = most;
    most_us_ = most_us;
}

void Batches::add(Member &member) noexcept {
    if (member.listed) return;
    if (!first_ && most_us_ > 0) begun_us_ = clock_us();
    member.next = std::exchange(first_, &member);
    member.listed = true;
}

void Batches::remove(Member &member) noexcept {
    if (!member.listed) return;
    Member **link = &first_;
    while (*link != &member) link = &(*link)->next;
    *link = member.next;
    member.listed = false;
}

bool Batches::overdue() const noexcept {
    return first_ && most_us_ > 0 && clock_us() - begun_us_ >= most_us_;
}

void Batches::send_all() noexcept {
    while (Member *member = first_) {
        first_ = member->next;
        member->listed = false;
        member->send(member->owner);
    }
}

} // namespace tavcl_ev
