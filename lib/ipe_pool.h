// A fixed pool of records: one zeroed block allocated at start-up, a free
// list that hands slots out from the first up, and a hash index of NB chains
// keyed by a NUL-terminated text field. Records are never returned to the
// system; a slot is in use exactly when its key's first byte is non-zero.
//
// T must be trivially copyable and have a `T* next` member, used as the
// chain link while in use and as the free-list link while free.
#pragma once

#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "ipe_jhash.h"
#include "jos.h"

template <typename T, size_t N, size_t NB, auto Key>
class ipe_pool {
    static_assert(std::is_trivially_copyable_v<T>);
    static_assert((NB & (NB - 1)) == 0, "bucket count must be a power of two");

public:
    static constexpr size_t capacity = N;

    static const char* key(const T* r) { return r->*Key; }
    static unsigned bucket(const char* k) { return ipe_jhash(k) & (NB - 1); }

    // Allocates the block. Slots are handed out from slot 0 up; released
    // ones are taken again first, the last released first. The free list
    // holds only released slots: the never-used rest is handed out by
    // index, so a large pool costs no memory until it fills.
    int init()
    {
        base_ = static_cast<T*>(std::calloc(N, sizeof(T)));
        if (base_ == nullptr)
            return -1;
        freelist_ = nullptr;
        unused_ = 0;
        std::memset(tbl_, 0, sizeof(tbl_));
        count_ = 0;
        last_ = base_;
        return 0;
    }

    // Takes the head of the free list, else the next never-used slot; null
    // when the pool is full.
    T* alloc()
    {
        T* r = freelist_;
        if (r != nullptr)
            freelist_ = r->next;
        else if (base_ != nullptr && unused_ < N)  // a pool never set up has no slots
            r = &base_[unused_++];
        else
            return nullptr;
        r->next = nullptr;
        if (r > last_)
            last_ = r;
        count_++;
        return r;
    }

    // Puts a record (key filled in) at the head of its chain.
    void link(T* r)
    {
        unsigned b = bucket(key(r));
        r->next = tbl_[b];
        tbl_[b] = r;
    }

    T* find(const char* k) const
    {
        for (T* r = tbl_[bucket(k)]; r != nullptr; r = r->next)
            if (std::strcmp(key(r), k) == 0)
                return r;
        return nullptr;
    }

    // The first record of key K's chain with key K that PRED accepts.
    template <typename P>
    T* find_if(const char* k, P&& pred) const
    {
        for (T* r = tbl_[bucket(k)]; r != nullptr; r = r->next)
            if (std::strcmp(key(r), k) == 0 && pred(r))
                return r;
        return nullptr;
    }

    // Takes the record of key K off its chain; null when there is none.
    T* unlink(const char* k)
    {
        for (T** pp = &tbl_[bucket(k)]; *pp != nullptr; pp = &(*pp)->next) {
            T* r = *pp;
            if (std::strcmp(key(r), k) == 0) {
                *pp = r->next;
                return r;
            }
        }
        return nullptr;
    }

    // Takes record R itself off its chain (several records may share a
    // key); false when it is not on it.
    bool unlink_record(T* r)
    {
        for (T** pp = &tbl_[bucket(key(r))]; *pp != nullptr; pp = &(*pp)->next) {
            if (*pp == r) {
                *pp = r->next;
                return true;
            }
        }
        return false;
    }

    // Zeroes an unlinked record and pushes it on the free list. The
    // high-water mark is not lowered.
    void release(T* r)
    {
        std::memset(static_cast<void*>(r), 0, sizeof(T));
        r->next = freelist_;
        freelist_ = r;
        count_--;
    }

    T* slot(size_t i) const { return &base_[i]; }
    size_t index(const T* r) const { return static_cast<size_t>(r - base_); }
    static bool inuse(const T* r) { return key(r)[0] != '\0'; }
    T* last() const { return last_; }
    T* first() const { return base_; }
    uint32_t count() const { return count_; }
    T* chain(unsigned b) const { return tbl_[b]; }

    // Calls fn for every slot in use, in index order.
    template <typename F>
    void each(F&& fn) const
    {
        for (size_t i = 0; i < N; i++)
            if (inuse(&base_[i]))
                fn(&base_[i]);
    }

    jos_spin_t mtx;

private:
    T* base_ = nullptr;
    T* tbl_[NB] = {};
    T* freelist_ = nullptr;
    size_t unused_ = 0;  // slots from here on were never handed out
    T* last_ = nullptr;
    uint32_t count_ = 0;
};
