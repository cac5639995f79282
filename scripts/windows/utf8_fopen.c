#include <windows.h>

FILE* rq_utf8_fopen(const char* name, const char* mode) {
    static const int kMost = 32768;
    wchar_t* wide_name = HeapAlloc(GetProcessHeap(), 0, kMost * sizeof(wchar_t));
    wchar_t wide_mode[8];
    FILE* file = NULL;
    if (wide_name != NULL &&
        MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, name, -1, wide_name, kMost) != 0 &&
        MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, mode, -1, wide_mode, 8) != 0)
        file = _wfopen(wide_name, wide_mode);
    HeapFree(GetProcessHeap(), 0, wide_name);
    return file;
}
