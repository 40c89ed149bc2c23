// Texts of the result codes.
#include "Common/OS/errors.h"

const char* ErrorString(eErrorT err) {
    switch (err) {
#define HARBOR_ERROR_CASE(name, value, text) \
    case name:                               \
        return text;
        HARBOR_ERROR_TABLE(HARBOR_ERROR_CASE)
#undef HARBOR_ERROR_CASE
    }
    return "unknown error";
}
