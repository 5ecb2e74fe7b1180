// An owned, uninitialised array that grows on demand and is reused between
// frames: the host-side processing keeps its tables and work planes in these
// so that the per-frame path allocates nothing once the resolution is known.
#ifndef KS_WORK_BUFFER_H
#define KS_WORK_BUFFER_H

#include <cstddef>
#include <memory>
#include <new>

template <typename T>
class KSWorkBuffer {
  public:
    // Makes room for count elements. Existing contents survive only when the
    // buffer is already large enough; a smaller buffer is replaced, never
    // reused. Returns false (and leaves the buffer empty) when allocation fails.
    bool reserve(size_t count) {
        if (data_ && count <= capacity_) return true;
        data_.reset();
        capacity_ = 0;
        data_.reset(new (std::nothrow) T[count == 0 ? 1 : count]);
        if (!data_) return false;
        capacity_ = count;
        return true;
    }
    void release() {
        data_.reset();
        capacity_ = 0;
    }
    T* data() const { return data_.get(); }
    size_t capacity() const { return capacity_; }
    explicit operator bool() const { return data_ != nullptr; }

  private:
    std::unique_ptr<T[]> data_;
    size_t capacity_ = 0;
};

#endif
