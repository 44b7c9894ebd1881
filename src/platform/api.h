// Marks what libkvl exports. Everything else stays inside the library.
#pragma once

#if defined(_WIN32)
#if defined(KVL_BUILDING)
#define KVL_API __declspec(dllexport)
#else
#define KVL_API __declspec(dllimport)
#endif
#else
#define KVL_API __attribute__((visibility("default")))
#endif
