// Counts image bytes and hands percentages to the progress control.
#include "devlib/kestrelflash/progress.h"

#include "softupdate/progressctrl/progressctrl.h"

progressCtrlT gProgressCtrl;

namespace {

SInt32 WrappingSum(SInt32 a, SInt32 b) {
    return static_cast<SInt32>(static_cast<UInt32>(a) + static_cast<UInt32>(b));
}

// The quotient is taken in 64 bits because the lowest value over -1 does not fit 32.
SInt32 Percentage(SInt32 done, SInt32 total) {
    const SInt32 hundredfold = static_cast<SInt32>(static_cast<UInt32>(done) * 100U);
    return static_cast<SInt32>(static_cast<SInt64>(hundredfold) / total);
}

}  // namespace

void ProgressAddImage(SInt32 size) {
    gProgressCtrl.nTotBytesToDo = WrappingSum(gProgressCtrl.nTotBytesToDo, size);
}

void updateProgress(int nBytesDone) {
    if (!gProgressCtrl.bDoUpdate) {
        return;
    }
    gProgressCtrl.nTotBytesDone = WrappingSum(gProgressCtrl.nTotBytesDone, nBytesDone);
    if (gProgressCtrl.nTotBytesToDo == 0) {
        return;
    }
    gProgressCtrl.nPercentDone =
        Percentage(gProgressCtrl.nTotBytesDone, gProgressCtrl.nTotBytesToDo);
    progressCtrlSetPos(gProgressCtrl.nPercentDone);
}
