// Reads image files block by block.
#include "devlib/kestrelflash/imagefile.h"

#include <string.h>

int ReadImageBlock(FILE* image, const char* name, SInt32 blockNumber, unsigned char* block,
                   int dataSize) {
    const std::size_t wanted = static_cast<std::size_t>(dataSize);
    const UInt32 number = static_cast<UInt32>(blockNumber);
    memset(block, 0, 2 + wanted);
    block[0] = static_cast<unsigned char>(number >> 8);
    block[1] = static_cast<unsigned char>(number);
    const std::size_t count = fread(block + 2, 1, wanted, image);
    const int bytesRead = static_cast<int>(count);
    printf("bytes read: %d ...\n", bytesRead);
    if (count == wanted) {
        return bytesRead;
    }
    if (ferror(image)) {
        return -1;
    }
    printf("\nLast block read_cnt: %d of file: %s \n", bytesRead, name);
    return bytesRead;
}

bool CloseImage(FILE** image) {
    FILE* const open = *image;
    *image = nullptr;
    return open == nullptr || fclose(open) == 0;
}
