// The C library's functions behind those that the simulation puts in their place. Any thread.
#pragma once

#include <pthread.h>

namespace rq::sim {

int RealCreate(pthread_t* handle, const pthread_attr_t* attributes, void* (*function)(void*), void* argument);
int RealJoin(pthread_t handle, void** result);

}  // namespace rq::sim
