// Shows a frame that calls user code whether the callback destroyed the object that the frame works on.
//
// The object has a private "int *destroyed", null while no frame watches. A watch points it at a mark of its
// own for its lifetime. Destroying the object sets the mark through mark_torn_down, and the frame then leaves
// the object alone. Watches of one object nest as the frames do, since a callback may run the loop: the inner
// watch passes its mark on to the outer one.
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

// Called when the object is destroyed. The slot is null afterwards.
inline void mark_torn_down(int *&slot) {
    if (slot) *slot = 1;
    slot = nullptr;
}

} // namespace tavipc
