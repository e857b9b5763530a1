#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <string>

inline std::string repeated(const std::string& part, size_t times) {
    std::string text;
    for (size_t i = 0; i < times; ++i)
        text += part;
    return text;
}

// As large as the smallest stack that a binder or HAL thread is given.
constexpr size_t kSmallStackBytes = size_t{256} * 1024;

/** Runs the body on a small stack, which may be memory of the caller's. */
inline void onASmallStack(const std::function<void()>& body, void* memory = nullptr) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(memory != nullptr ? pthread_attr_setstack(&attributes, memory, kSmallStackBytes)
                                : pthread_attr_setstacksize(&attributes, kSmallStackBytes),
              0);
    const auto run = [](void* argument) -> void* {
        (*static_cast<const std::function<void()>*>(argument))();
        return nullptr;
    };
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&body)), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}
