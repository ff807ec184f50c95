#ifndef RVOSMARTPOINTER_H
#define RVOSMARTPOINTER_H

#include "RvoDdiGlobal.h"

#include <utility>

// Intrusive reference-counting pointer over objects with incRef()/decRef()
// (protected in T, with RvoSmartPointer<T> a friend). Each non-null pointer
// holds one count; the object decides in decRef() when it dies.
//
// Threading: a single RvoSmartPointer object is not to be changed by two
// threads at once; distinct pointers to one object may be used anywhere,
// since the counting is the object's and is thread-safe.
template<class T>
class RvoSmartPointer
{
public:
    RvoSmartPointer() noexcept = default;

    explicit RvoSmartPointer(T *object)
        : m_Ptr(object)
    {
        if (m_Ptr)
            m_Ptr->incRef();
    }

    RvoSmartPointer(const RvoSmartPointer &other)
        : m_Ptr(other.m_Ptr)
    {
        if (m_Ptr)
            m_Ptr->incRef();
    }

    RvoSmartPointer(RvoSmartPointer &&other) noexcept
        : m_Ptr(std::exchange(other.m_Ptr, nullptr))
    {
    }

    ~RvoSmartPointer() { reset(); }

    // Takes the new count before the old one is dropped, so assigning a
    // pointer to the object it already holds never lets the object die.
    RvoSmartPointer &operator=(const RvoSmartPointer &other)
    {
        if (this == &other)
            return *this;
        T *next = other.m_Ptr;
        if (next)
            next->incRef();
        T *old = std::exchange(m_Ptr, next);
        if (old)
            old->decRef();
        return *this;
    }

    RvoSmartPointer &operator=(RvoSmartPointer &&other) noexcept
    {
        if (this != &other) {
            T *old = std::exchange(m_Ptr, std::exchange(other.m_Ptr, nullptr));
            if (old)
                old->decRef();
        }
        return *this;
    }

    // Wraps an object whose count the caller already raised for this
    // pointer: no incRef here, the returned pointer drops that count.
    static RvoSmartPointer adopt(T *object)
    {
        RvoSmartPointer pointer;
        pointer.m_Ptr = object;
        return pointer;
    }

    void reset()
    {
        if (T *old = std::exchange(m_Ptr, nullptr))
            old->decRef();
    }

    T *data() const { return m_Ptr; }
    bool isNull() const { return m_Ptr == nullptr; }
    explicit operator bool() const { return m_Ptr != nullptr; }
    T *operator->() const { return m_Ptr; }
    T &operator*() const { return *m_Ptr; }

    void swap(RvoSmartPointer &other) noexcept { std::swap(m_Ptr, other.m_Ptr); }

    friend bool operator==(const RvoSmartPointer &a, const RvoSmartPointer &b)
    {
        return a.m_Ptr == b.m_Ptr;
    }
    friend bool operator!=(const RvoSmartPointer &a, const RvoSmartPointer &b)
    {
        return a.m_Ptr != b.m_Ptr;
    }
    friend bool operator==(const RvoSmartPointer &a, const T *b) { return a.m_Ptr == b; }
    friend bool operator!=(const RvoSmartPointer &a, const T *b) { return a.m_Ptr != b; }

private:
    T *m_Ptr = nullptr;
};

// Hashes the pointer, not the object: (p >> 31) ^ p, low 32 bits. Equal
// digests are interned into one object, so this is a hash of identity.
template<class T>
inline RvoQHashType qHash(const RvoSmartPointer<T> &pointer, RvoQHashType seed = 0)
{
    const quint64 p = quint64(quintptr(pointer.data()));
    return RvoQHashType(quint32((p >> 31) ^ p)) ^ seed;
}

#endif // RVOSMARTPOINTER_H
