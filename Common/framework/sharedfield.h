// Access to fields that several tasks touch without a lock. The framework's records (ModT, TimerT,
// callback slots) stay plain data, because their owners zero-fill and copy them; the fields that
// cross tasks are therefore read and written through the atomic views below. Any thread may call;
// nothing blocks.
#pragma once

#include <atomic>
#include <type_traits>

// The field's value; what its writer stored before it is visible too.
template <typename T>
inline T FieldRead(const T& field) {
    return std::atomic_ref<T>(const_cast<T&>(field)).load();
}

// Stores a value and makes everything stored before it visible to who reads the value.
template <typename T>
inline void FieldWrite(T& field, std::type_identity_t<T> value) {
    std::atomic_ref<T>(field).store(value);
}

// Sets bits of a field that other tasks may set and clear too.
template <typename T>
inline void FieldSetBits(T& field, std::type_identity_t<T> bits) {
    std::atomic_ref<T>(field).fetch_or(bits);
}

template <typename T>
inline void FieldClearBits(T& field, std::type_identity_t<T> bits) {
    std::atomic_ref<T>(field).fetch_and(static_cast<T>(~bits));
}
