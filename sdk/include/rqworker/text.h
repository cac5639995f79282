/* rqworker/text.h: how texts and lists cross the plug-in contract. Borrowed by whoever receives them. */
#ifndef RQWORKER_TEXT_H
#define RQWORKER_TEXT_H

#include <stddef.h>
#include <stdint.h>

/* UTF-8, `n` bytes, no zero needed; {NULL, 0} is empty. */
typedef struct RQText {
    const char* p;
    size_t n;
} RQText;

typedef struct RQTextList {
    const RQText* items;
    size_t n;
} RQTextList;

typedef struct RQPortList {
    const uint16_t* items;
    size_t n;
} RQPortList;

#endif /* RQWORKER_TEXT_H */
