// Small string helpers. They work on the caller's own buffers; any thread may call.
#pragma once

// Removes trailing, leading or both kinds of characters up to 32 (blanks and controls; bytes from
// 128 up are never blank), in place. Returns `str`.
char* trim_trailing(char* str);
char* trim_leading(char* str);
char* trim_str(char* str);

// Converts in place with the C library's case mapping. Returns `string`.
char* strupr(char* string);
char* strlwr(char* string);

// Compares without regard to case, over the first 255 characters: negative, 0 or positive.
int stricmp(const char* s1, const char* s2);

// Writes `value` into `buffer` in radix 10 (signed) or 16 (lower case) and returns `buffer`; null
// for any other radix. The buffer holds at least 12 characters.
char* itoa(int value, char* buffer, int radix);
