// Threads with a stack as small as some processes give them.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

inline void on_small_stack(void *(*action)(void *), void *argument) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 64 * 1024), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, action, argument), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}
