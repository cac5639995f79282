// For a function that must be a call of its own: the mark, as each compiler spells it.
#pragma once

#if defined(_MSC_VER) && !defined(__clang__)
#define RQ_NOINLINE __declspec(noinline)
#else
#define RQ_NOINLINE [[gnu::noinline]]
#endif
