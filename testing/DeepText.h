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

// Runs the body on a stack as large as the smallest that a binder or HAL thread is given.
inline void onASmallStack(std::function<void()> body) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 256 * 1024), 0);
    const auto run = [](void* argument) -> void* {
        (*static_cast<std::function<void()>*>(argument))();
        return nullptr;
    };
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, run, &body), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}
