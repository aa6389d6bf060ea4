#include <tarncommon/Buf.h>

#include <tarncommon/error/CommonError.h>
#include <tarncommon/error/ErrorOutput.h>

#include <cstring>
#include <new>
#include <utility>

namespace std {

namespace {

constexpr char const* SOURCE = "tarncommon/src/Buf";

class HeapAllocator final : public Buf::Allocator {
public:
    constexpr HeapAllocator() noexcept = default;

    void* allocate(unsigned int size) const noexcept override { return ::operator new(size, nothrow); }
    void release(void* memory, unsigned int) const noexcept override { ::operator delete(memory); }
};

TARN_CONSTANT_INIT HeapAllocator const HEAP;

} // namespace

TARN_CONSTANT_INIT Buf::Allocator const& Buf::DEFAULT_ALLOCATOR = HEAP;

Buf::Buf(unsigned int size, Allocator const& allocator, Uninitialised) noexcept
    : data(nullptr), m_size(size), m_allocator(&allocator) {
    if (size == 0) {
        return;
    }
    data = static_cast<unsigned char*>(allocator.allocate(size));
    if (data == nullptr) {
        ErrorOutput(SOURCE, __LINE__, true)(CommonErrorId::OUT_OF_MEMORY);
    }
}

Buf::Buf(unsigned int size, Allocator const& allocator) noexcept : Buf(size, allocator, Uninitialised{}) {
    if (data != nullptr) {
        memset(data, 0, size);
    }
}

Buf::Buf(Buf const& other) noexcept : Buf(other.getSize(), *other.m_allocator, Uninitialised{}) {
    m_size = other.m_size; // Keeps the copy of an invalid block invalid.
    if (data != nullptr) {
        memcpy(data, other.data, m_size);
    }
}

Buf::Buf(Buf&& other) noexcept
    : data(exchange(other.data, nullptr)),
      m_size(exchange(other.m_size, 0U)),
      m_allocator(other.m_allocator) {}

Buf& Buf::operator=(Buf const& other) noexcept {
    if (this != &other) {
        Buf copy(other);
        swap(copy);
    }
    return *this;
}

Buf& Buf::operator=(Buf&& other) noexcept {
    if (this != &other) {
        Buf taken(std::move(other));
        swap(taken);
    }
    return *this;
}

Buf::~Buf() {
    if (data != nullptr) {
        m_allocator->release(data, m_size);
    }
}

bool Buf::operator==(Buf const& other) const noexcept {
    unsigned int const size = getSize();
    return size == other.getSize() && (size == 0 || memcmp(data, other.data, size) == 0);
}

void Buf::swap(Buf& other) noexcept {
    std::swap(data, other.data);
    std::swap(m_size, other.m_size);
    std::swap(m_allocator, other.m_allocator);
}

} // namespace std
