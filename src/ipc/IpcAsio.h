// IpcAsio: how the transport's sources include standalone asio. Public headers of src/ipc never include
// asio; only IpcRuntime.cc, IpcConnection.cc and IpcListener.cc do, through this header, included first.
//
// g++ 12 warns under -fsanitize=thread that the sanitizer cannot see asio's std::atomic_thread_fence.
// asio hands completions between threads through its scheduler's mutex, which the sanitizer does see, so
// the fence adds nothing it needs. The warning is attached to <atomic>'s own line, so it can only be
// silenced before <atomic> is first included: hence "included first", and no pop.
#pragma once

#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12
#pragma GCC diagnostic ignored "-Wtsan"
#endif

#ifndef ASIO_STANDALONE
#define ASIO_STANDALONE
#endif
#include <asio.hpp>
