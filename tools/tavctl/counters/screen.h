// The terminal of a live table: another screen without a cursor, and keys that come one by one. The shell
// gets its terminal back as it was, however the process ends or stops, except by SIGKILL and SIGSTOP.
#pragma once

#include <string>

namespace tavctl {

class Screen {
  public:
    // Whether standard output is a terminal that can show it.
    static bool is_possible();
    Screen();
    ~Screen();
    Screen(const Screen &) = delete;

    unsigned rows() const;
    // Replaces what is shown. Does nothing while the process is in the background.
    void show(const std::string &text);
    // Waits this long at most. Returns a key; 0: none, but the size may have changed; -1: the terminal is
    // gone.
    int wait_key(double seconds);
};

} // namespace tavctl
