// The C library's generator, rand and srand. Its lock stays locked in a forked child if another thread had
// it, so the library takes a lock of its own around it, which forks take, too. (A thread of the application
// that calls rand during a fork is not covered.)
#pragma once

namespace tavipc {

int draw_random() noexcept;
void seed_random(unsigned seed) noexcept;

} // namespace tavipc
