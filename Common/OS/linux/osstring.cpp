// Small string helpers.
#include "Common/OS/linux/osstring.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

namespace {

constexpr size_t kCompareSize = 256;

bool IsBlank(char c) {
    return static_cast<unsigned char>(c) <= 32;
}

char Upper(char c) {
    return static_cast<char>(toupper(static_cast<unsigned char>(c)));
}

}  // namespace

char* trim_trailing(char* str) {
    size_t length = strlen(str);
    while (length > 0 && IsBlank(str[length - 1])) {
        str[--length] = '\0';
    }
    return str;
}

char* trim_leading(char* str) {
    const char* start = str;
    while (*start != '\0' && IsBlank(*start)) {
        start++;
    }
    memmove(str, start, strlen(start) + 1);
    return str;
}

char* trim_str(char* str) {
    return trim_trailing(trim_leading(str));
}

char* strupr(char* string) {
    for (char* c = string; *c != '\0'; c++) {
        *c = Upper(*c);
    }
    return string;
}

char* strlwr(char* string) {
    for (char* c = string; *c != '\0'; c++) {
        *c = static_cast<char>(tolower(static_cast<unsigned char>(*c)));
    }
    return string;
}

int stricmp(const char* s1, const char* s2) {
    char upper1[kCompareSize];
    char upper2[kCompareSize];
    snprintf(upper1, sizeof(upper1), "%s", s1);
    snprintf(upper2, sizeof(upper2), "%s", s2);
    return strcmp(strupr(upper1), strupr(upper2));
}

char* itoa(int value, char* buffer, int radix) {
    if (radix == 10) {
        sprintf(buffer, "%d", value);
        return buffer;
    }
    if (radix == 16) {
        sprintf(buffer, "%x", static_cast<unsigned>(value));
        return buffer;
    }
    return nullptr;
}
