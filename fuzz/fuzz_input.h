// Reads a fuzz input front to back; once it is used up every read gives
// zeros, so a harness never has to check what is left.
#ifndef KS_FUZZ_INPUT_H
#define KS_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace fuzzing {

class Input {
  public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    bool empty() const { return at_ >= size_; }
    size_t left() const { return empty() ? 0 : size_ - at_; }

    uint8_t u8() { return empty() ? 0 : data_[at_++]; }
    uint16_t u16() { return static_cast<uint16_t>(u8() | (u8() << 8)); }
    uint32_t u32() { return static_cast<uint32_t>(u16()) | (static_cast<uint32_t>(u16()) << 16); }
    // A value in [0, n) (n > 0).
    uint32_t below(uint32_t n) { return n <= 256 ? u8() % n : u32() % n; }

    // Copies up to n bytes into out and zero-fills the rest; the count copied.
    size_t bytes(void* out, size_t n) {
        const size_t k = n < left() ? n : left();
        if (k > 0) std::memcpy(out, data_ + at_, k);
        if (k < n) std::memset(static_cast<uint8_t*>(out) + k, 0, n - k);
        at_ += k;
        return k;
    }
    // Text of at most max bytes, ended by a zero byte or the input's end.
    std::string text(size_t max) {
        std::string s;
        while (!empty() && s.size() < max) {
            const char c = static_cast<char>(u8());
            if (c == '\0') break;
            s.push_back(c);
        }
        return s;
    }
    // Everything not read yet.
    const uint8_t* rest() const { return data_ + (empty() ? size_ : at_); }
    void skip_all() { at_ = size_; }

  private:
    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
};

}  // namespace fuzzing

#endif
