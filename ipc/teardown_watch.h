// Lets a frame that calls out to user code learn that the callback tore down the very object it works on.
//
// The object has a private "int *destroyed", null while no frame watches. A watch puts its own mark there
// for its lifetime; the object's tear-down sets the mark through mark_torn_down, and the frame then touches
// the object no more. Watches of one object nest as the frames do (a callback may run the loop): the inner
// one hands its mark on to the outer one.
#pragma once

namespace tavipc {

class TeardownWatch {
  public:
    explicit TeardownWatch(int *&slot) : slot_(&slot), outer_(slot) { slot = &mark_; }
    ~TeardownWatch() {
        if (!mark_)
            *slot_ = outer_;
        else if (outer_)
            *outer_ = 1;
    }
    TeardownWatch(const TeardownWatch &) = delete;
    TeardownWatch &operator=(const TeardownWatch &) = delete;

    bool torn_down() const { return mark_ != 0; }

  private:
    int mark_ = 0;
    int **slot_;
    int *outer_;
};

// Called by the tear-down, which then leaves a null slot (or no object at all).
inline void mark_torn_down(int *&slot) {
    if (slot) *slot = 1;
    slot = nullptr;
}

} // namespace tavipc
