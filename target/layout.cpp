// The records' layout on the board's processor: each field at its place, and the size where nothing
// private follows. Compiled with every build for that processor; nothing of it is linked.
#include <cstddef>

#include "Common/OS/dev.h"
#include "Common/OS/linux/board.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/linux/semaphores.h"
#include "Common/OS/sysCapsTable.h"
#include "Common/framework/buf.h"
#include "Common/framework/bufpool.h"
#include "Common/framework/config.h"
#include "Common/framework/message.h"
#include "Common/framework/modman.h"
#include "Common/framework/rem_message.h"
#include "Common/framework/timer.h"
#include "devlib/devmgr_serial/devmgr_serial.h"
#include "devlib/kestrelflash/microupdate.h"
#include "devlib/kestrelflash/overlookupdate.h"
#include "devlib/kestrelflash/progress.h"
#include "devlib/serialapi/serialapi.h"

#define AT(record, field, offset) static_assert(offsetof(record, field) == (offset))
#define SIZE(record, size) static_assert(sizeof(record) == (size))

AT(rtclk8349, cnr, 0);
AT(rtclk8349, ldr, 4);
AT(rtclk8349, psr, 8);
AT(rtclk8349, ctr, 12);
AT(rtclk8349, evr, 16);
AT(rtclk8349, alr, 20);
SIZE(rtclk8349, 24);

AT(fpgaserial_config_t, valid_mask, 0);
AT(fpgaserial_config_t, baudrate, 4);
AT(fpgaserial_config_t, parity, 8);
AT(fpgaserial_config_t, stopbits, 12);
AT(fpgaserial_config_t, hwflowctrl, 16);
AT(fpgaserial_config_t, databits_size, 20);
SIZE(fpgaserial_config_t, 24);

AT(IORB, pNext, 0);
AT(IORB, pPrevious, 4);
AT(IORB, pBuffer, 8);
AT(IORB, pDstBuffer, 12);
AT(IORB, reqLen, 16);
AT(IORB, actLen, 20);
AT(IORB, err, 24);
AT(IORB, pUserCompFunc, 28);
AT(IORB, timeout, 32);
AT(IORB, taskID, 36);
AT(IORB, ctlCode, 40);
AT(IORB, pDev, 44);
AT(IORB, pUserDefined, 48);
AT(IORB, pChain, 52);
AT(IORB, signature, 56);
AT(IORB, flags, 60);
SIZE(IORB, 64);

AT(IORBList, pHead, 0);
AT(IORBList, pTail, 4);
AT(IORBList, num, 8);
SIZE(IORBList, 12);

AT(DEVCB, pNext, 0);
AT(DEVCB, pPrevious, 4);
AT(DEVCB, name, 8);
AT(DEVCB, open, 16);
AT(DEVCB, close, 20);
AT(DEVCB, read, 24);
AT(DEVCB, write, 28);
AT(DEVCB, ioctl, 32);
AT(DEVCB, instance, 36);
AT(DEVCB, state, 40);
AT(DEVCB, readIORBs, 44);
AT(DEVCB, writeIORBs, 56);
AT(DEVCB, ioctlIORBs, 68);
AT(DEVCB, numBytesWritten, 80);
AT(DEVCB, numBytesRead, 84);
AT(DEVCB, numOpens, 88);
AT(DEVCB, numCloses, 92);
AT(DEVCB, flags, 96);
AT(DEVCB, fd, 100);
AT(DEVCB, transferMode, 104);
SIZE(DEVCB, 108);

AT(DevmgrSerial_CBdata_t, buff, 0);
AT(DevmgrSerial_CBdata_t, size, 4);
AT(DevmgrSerial_CBdata_t, NumBytes, 4);
SIZE(DevmgrSerial_CBdata_t, 8);

AT(DevmgrSerial_CBInfo_t, txCBFunc, 0);
AT(DevmgrSerial_CBInfo_t, rxCBFunc, 4);
AT(DevmgrSerial_CBInfo_t, Context_Data, 8);
SIZE(DevmgrSerial_CBInfo_t, 12);

AT(DevMgrSerial_CB_t, devCB, 0);
AT(DevMgrSerial_CB_t, portType, 108);
AT(DevMgrSerial_CB_t, cbInfo, 112);
AT(DevMgrSerial_CB_t, asyncThread_running, 124);
AT(DevMgrSerial_CB_t, tx_enabled, 128);
AT(DevMgrSerial_CB_t, rx_enabled, 129);
AT(DevMgrSerial_CB_t, threadID, 132);
AT(DevMgrSerial_CB_t, portnum, 136);

AT(RS232Cfg, bitRate, 0);
AT(RS232Cfg, dataBits, 4);
AT(RS232Cfg, parityBits, 8);
AT(RS232Cfg, stopBits, 12);
AT(RS232Cfg, hwFlowControlDtrDsr, 16);
AT(RS232Cfg, hwFlowControlRtsCts, 20);
AT(RS232Cfg, swFlowControlXonXoff, 24);
SIZE(RS232Cfg, 28);

AT(KestrelMicroUpdateInfoT, micro_file, 0);
AT(KestrelMicroUpdateInfoT, currentBlock, 4);
AT(KestrelMicroUpdateInfoT, totalBlock, 8);
AT(KestrelMicroUpdateInfoT, BlockRetries, 12);
SIZE(KestrelMicroUpdateInfoT, 16);

AT(OverlookUpdateInfoT, overlook_cam_file, 0);
AT(OverlookUpdateInfoT, currentCamBlock, 4);
AT(OverlookUpdateInfoT, totalCamBlock, 8);
AT(OverlookUpdateInfoT, camBlockRetries, 12);
AT(OverlookUpdateInfoT, overlook_sys_file, 16);
AT(OverlookUpdateInfoT, currentSysBlock, 20);
AT(OverlookUpdateInfoT, totalSysBlock, 24);
AT(OverlookUpdateInfoT, sysBlockRetries, 28);
SIZE(OverlookUpdateInfoT, 32);

AT(progressCtrlT, bDoUpdate, 0);
AT(progressCtrlT, nPercentDone, 4);
AT(progressCtrlT, nTotBytesToDo, 8);
AT(progressCtrlT, nTotBytesDone, 12);
AT(progressCtrlT, nRangeLowerLimit, 16);
AT(progressCtrlT, nRangeUpperLimit, 20);
AT(progressCtrlT, nMicroFileSize, 24);
AT(progressCtrlT, nSysFileSize, 28);
AT(progressCtrlT, nCamFileSize, 32);
AT(progressCtrlT, pszCommPipe, 36);
SIZE(progressCtrlT, 40);

AT(TCB, taskname, 0);
AT(TCB, nameterm, 4);
AT(TCB, args, 8);
AT(TCB, priority, 24);
AT(TCB, task_start, 28);
AT(TCB, mode, 32);
AT(TCB, refcon, 36);
AT(TCB, event_mask, 40);
AT(TCB, events_captured, 44);
AT(TCB, events_pending, 48);
AT(TCB, thread, 52);
AT(TCB, attr, 56);
AT(TCB, prv_pri, 92);
AT(TCB, timedwait, 96);
AT(TCB, timedout, 100);
AT(TCB, tmid, 104);
AT(TCB, event_mutex, 108);
AT(TCB, event_cond, 136);
AT(TCB, taskWaiting, 184);
AT(TCB, pid, 188);
AT(TCB, tid, 192);
AT(TCB, systime, 196);
AT(TCB, usrtime, 200);
AT(TCB, next, 204);

AT(TMCB, taskID, 0);
AT(TMCB, ticks, 4);
AT(TMCB, origTicks, 8);
AT(TMCB, events, 12);
AT(TMCB, cbptr, 16);
AT(TMCB, pArgs, 20);
AT(TMCB, next, 24);
SIZE(TMCB, 28);

AT(SMCB, signature, 0);
AT(SMCB, name, 4);
AT(SMCB, thread, 8);
AT(SMCB, reentercount, 12);
AT(SMCB, mutex, 16);

AT(ListT, next, 0);
AT(ListT, prev, 4);
SIZE(ListT, 8);

AT(ModProxyT, nodeType, 0);
AT(ModProxyT, pModDBEntry, 4);
AT(ModProxyT, pLegacyFuncTbl, 8);
AT(ModProxyT, pIPC, 12);
AT(ModProxyT, readIORBList, 16);
AT(ModProxyT, writePendingIORBList, 20);
AT(ModProxyT, writeIORBList, 24);
AT(ModProxyT, remHandle, 28);
AT(ModProxyT, pRemoteBufCache, 32);
SIZE(ModProxyT, 36);

AT(ModCallbackT, pFunc, 0);
AT(ModCallbackT, userDefined, 4);
AT(ModCallbackT, whenFlags, 8);
AT(ModCallbackT, destTaskID, 12);
AT(ModCallbackT, funcIndex, 16);
SIZE(ModCallbackT, 20);

AT(ModT, list, 0);
AT(ModT, Exit, 8);
AT(ModT, CallCallbacks, 12);
AT(ModT, ThrowException, 16);
AT(ModT, Dump, 20);
AT(ModT, DumpHeading, 24);
AT(ModT, SetOwner, 28);
AT(ModT, GetOwner, 32);
AT(ModT, DebugCmd, 36);
AT(ModT, initializedSig, 40);
AT(ModT, flags, 44);
AT(ModT, name, 48);
AT(ModT, instance, 84);
AT(ModT, fullname, 88);
AT(ModT, pOwner, 132);
AT(ModT, pPrivate, 136);
AT(ModT, taskID, 140);
AT(ModT, id, 144);
AT(ModT, type, 148);
AT(ModT, subType, 152);
AT(ModT, processorNum, 156);
AT(ModT, proxy, 160);
AT(ModT, pCallbacks, 196);
AT(ModT, numCallbacks, 200);
SIZE(ModT, 204);

AT(ModDeferredFuncT, list, 0);
AT(ModDeferredFuncT, taskID, 8);
AT(ModDeferredFuncT, pFunc, 12);
AT(ModDeferredFuncT, userDefined, 16);
AT(ModDeferredFuncT, time, 20);
AT(ModDeferredFuncT, args, 24);

AT(ModDeferredCallbackT, list, 0);
AT(ModDeferredCallbackT, callback, 8);
AT(ModDeferredCallbackT, pMod, 28);
AT(ModDeferredCallbackT, funcIndex, 32);
AT(ModDeferredCallbackT, time, 36);
AT(ModDeferredCallbackT, args, 40);

AT(DFStatsT, taskID, 0);
AT(DFStatsT, eventTime, 4);
AT(DFStatsT, minTime, 8);
AT(DFStatsT, maxTime, 12);
AT(DFStatsT, totTime, 16);
AT(DFStatsT, runs, 20);
AT(DFStatsT, queued, 24);
SIZE(DFStatsT, 28);

AT(CmdEntryT, list, 0);
AT(CmdEntryT, name, 8);
AT(CmdEntryT, pFunc, 12);
AT(CmdEntryT, argcmin, 16);
AT(CmdEntryT, syntax, 20);
AT(CmdEntryT, flags, 24);
AT(CmdEntryT, taskID, 28);
SIZE(CmdEntryT, 32);

// Texts of 512 characters travel with their end, 513 bytes, and three to fill.
AT(CmdArgT, cmdString, 0);
AT(CmdArgT, argc, 516);
AT(CmdArgT, argv, 520);
AT(CmdArgT, pNotifyFunc, 840);
AT(CmdArgT, userDefined, 844);
AT(CmdArgT, flags, 848);

AT(NotifyArgT, notifyString, 0);
AT(NotifyArgT, pNotifyFunc, 516);
AT(NotifyArgT, userDefined, 520);
AT(NotifyArgT, err, 524);
SIZE(NotifyArgT, 528);

AT(RemMsgT, mod, 0);
AT(RemMsgT, SendCmd, 204);
AT(RemMsgT, SendRsp, 208);
SIZE(RemMsgT, 212);

AT(TimerT, list, 0);
AT(TimerT, userDefined, 8);
AT(TimerT, pFunc, 12);
AT(TimerT, time, 16);
AT(TimerT, periodic, 20);
AT(TimerT, timerID, 24);
AT(TimerT, ticks, 28);
AT(TimerT, rtms, 32);
AT(TimerT, taskID, 36);
AT(TimerT, running, 40);
AT(TimerT, lastTime, 44);
AT(TimerT, maxLatency, 48);
AT(TimerT, maxExecTime, 52);
AT(TimerT, totalExecTime, 56);
AT(TimerT, numExecs, 60);
AT(TimerT, signature, 64);

AT(BufT, list, 0);
AT(BufT, bufDescLen, 8);
AT(BufT, refCount, 10);
AT(BufT, pOwner, 12);
AT(BufT, pData, 16);
AT(BufT, dataLen, 20);
AT(BufT, ptr, 24);
AT(BufT, len, 28);
AT(BufT, pDup, 32);
AT(BufT, headerSpace, 36);
AT(BufT, srcProcNum, 38);
AT(BufT, pUser, 40);
AT(BufT, pSrcProxyBuf, 44);
AT(BufT, pDstProxyBuf, 48);
AT(BufT, pProxyOwner, 52);
AT(BufT, timeSent, 56);
AT(BufT, pBufPool, 60);
SIZE(BufT, 64);

AT(ModDBTableT, numEntries, 0);
AT(ModDBTableT, pEntry, 4);
SIZE(ModDBTableT, 8);

AT(ModManT, mod, 0);
AT(ModManT, pModDB, 204);
AT(ModManT, dbSemaphore, 208);
AT(ModManT, pModInstance, 212);
AT(ModManT, pRemModInst, 4308);
AT(ModManT, nRemModProcNum, 8404);
SIZE(ModManT, 9428);

AT(ModAddDelArgsT, add, 0);
AT(ModAddDelArgsT, name, 4);
AT(ModAddDelArgsT, procMap, 36);
SIZE(ModAddDelArgsT, 40);

AT(ModDBEntryT, name, 0);
AT(ModDBEntryT, instanceSize, 36);
AT(ModDBEntryT, pInitFunc, 40);
AT(ModDBEntryT, pPFT, 44);
AT(ModDBEntryT, proxyFuncHash, 48);

AT(BufPoolT, mod, 0);
AT(BufPoolT, BuildFreeList, 204);
AT(BufPoolT, DestroyFreeList, 208);
AT(BufPoolT, SetFreeBufParms, 212);
AT(BufPoolT, BufAlloc, 216);
AT(BufPoolT, BufFree, 220);
AT(BufPoolT, BufAllocMem, 224);
AT(BufPoolT, BufFreeMem, 228);
AT(BufPoolT, BufDescAlloc, 232);
AT(BufPoolT, BufDescFree, 236);
AT(BufPoolT, maxBufs, 240);
AT(BufPoolT, numBufs, 244);
AT(BufPoolT, numFreeBufs, 248);
AT(BufPoolT, bufLen, 252);
AT(BufPoolT, headerSpace, 256);
AT(BufPoolT, bufDescLen, 260);
AT(BufPoolT, memType, 264);
AT(BufPoolT, pMem, 268);
AT(BufPoolT, pFreeBufs, 272);
AT(BufPoolT, pBufDescs, 276);
AT(BufPoolT, state, 280);
AT(BufPoolT, minFreeBufs, 284);
AT(BufPoolT, minFreeBufsThresh, 288);
AT(BufPoolT, pAllBufs, 292);
SIZE(BufPoolT, 296);

AT(ConfigT, mod, 0);
AT(ConfigT, pItems, 204);
SIZE(ConfigT, 716);

AT(ConfigItemT, mod, 0);
AT(ConfigItemT, instance, 204);

AT(ConfigValueChangedCallbackArgsT, instance, 0);
AT(ConfigValueChangedCallbackArgsT, flags, 4);
AT(ConfigValueChangedCallbackArgsT, permissions, 8);
AT(ConfigValueChangedCallbackArgsT, name, 12);
AT(ConfigValueChangedCallbackArgsT, value, 45);
SIZE(ConfigValueChangedCallbackArgsT, 416);

AT(sysCapsT, keyName, 0);
AT(sysCapsT, val, 4);
AT(sysCapsT, instance, 8);
AT(sysCapsT, fmt, 12);
SIZE(sysCapsT, 16);
