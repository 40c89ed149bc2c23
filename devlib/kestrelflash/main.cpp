// The firmware updater's program; all of it is in the library, so that tests link what ships.
#include "devlib/kestrelflash/kestrelflash.h"

int main(int argc, char** argv) {
    return KestrelFlashMain(argc, argv);
}
