// The table of exit statuses, as people read it.
#include "tools/kestrelwatch/statuses.h"

namespace watch {

namespace {

struct RowT {
    const char* status;
    const char* meaning;
};

const RowT kRows[] = {
    {"0", "the updater's own: done, or a query found nothing to update"},
    {"1", "the updater's own: a query found that an update is required"},
    {"255", "the updater's own: usage error or a failed update"},
    {"120", "--strict: the updater reported success that cannot be trusted"},
    {"121", "bad option, or nothing to do"},
    {"122", "bad range"},
    {"123", "pipe path refused: no FIFO, too long, in use, or not to be opened"},
    {"124", "the pipe or its folder could not be made"},
    {"125", "kestrelwatch itself failed"},
    {"126", "the updater is there but cannot be run"},
    {"127", "the updater was not found"},
    {"128+n", "signal n ended the updater"},
};

}  // namespace

std::string StatusTable() {
    std::string table = "Exit status:\n";
    for (const RowT& row : kRows) {
        std::string status = row.status;
        status.resize(7, ' ');
        table += "  " + status + row.meaning + "\n";
    }
    return table;
}

}  // namespace watch
