/* Given to the compiler before each source of a library that opens files by fopen: their names are UTF-8
   then, instead of the ANSI code page's. */
#include <stdio.h>
FILE* rq_utf8_fopen(const char* name, const char* mode);
#ifndef RQ_UTF8_FOPEN
#define fopen rq_utf8_fopen
#endif
