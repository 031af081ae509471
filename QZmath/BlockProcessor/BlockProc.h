#pragma once
// The block-processing engine: walks a huge model block by block, on the
// calling thread or on several worker threads, for any number of passes.
//
// A client subclasses `CBlockProcessor` (what to extract from the model, how to
// write a block back, which worker to make), `CBlockStructure` (the blocks and
// which of them may be in work together) and `CBlockWorker` (what to do with a
// block). The processor owns the schedule, the locks, the abort path and the
// progress.

#include <atomic>
#include <exception>
#include <memory>
#include <vector>

#include "QZmath/BlockProcessor/BlockStructure.h"
#include "QZmath/BlockProcessor/BlockWorker.h"
#include "QZmath/BlockProcessor/ThreadTrace.h"
#include "QZsys/DebugLog.h"
#include "QZsys/Exceptions.h"
#include "QZsys/Fragments.h"
#include "QZsys/Progress.h"
#include "QZsys/Threading.h"

namespace BlockProc
{
namespace detail
{
class CAllMutexesLocker;
}

/// Status of `CBlockProcessor::Run` for a bad configuration (extraction
/// without immediate modification, or parallel work without threads).
constexpr int QZ_STATUS_BAD_CONFIGURATION = 9;
/// Status of `CBlockProcessor::Run` when memory ran out.
constexpr int QZ_STATUS_NO_MEMORY = 1;

/// Ends a run with a status: `Run` returns its code.
class EBlockAlgError : public std::exception
{
public:
  explicit EBlockAlgError(int code = 0) noexcept : m_iErrorCode(code) {}
  int GetErrorCode() const noexcept { return m_iErrorCode; }
  const char * what() const noexcept override { return "Block algorithm error"; }

private:
  int m_iErrorCode;
};

/// Base class of a client's block processing.
///
/// Threads. `Run` and every hook but the block-level ones run on the calling
/// thread (the manager). In a parallel run `ExtractBlock`, `ApplyBlockChanges`,
/// `CheckWorkerResult`, `OnBlockProcessStart`/`Finish` and all worker
/// operations run on worker threads. Reads of the model go under the worker's
/// own read mutex, writes under all read mutexes together: readers never wait
/// for one another and a writer waits for all.
class CBlockProcessor
{
public:
  CBlockProcessor();
  virtual ~CBlockProcessor();
  CBlockProcessor(CBlockProcessor const &) = delete;
  CBlockProcessor & operator=(CBlockProcessor const &) = delete;

  /// Runs all passes. Returns `GetWholeProcessResult()` (0 by default), or: -1
  /// without a block structure or for an unexpected error, 9 for a bad
  /// configuration, 1 when memory ran out, 10 for a user interruption, the code
  /// of an `EBlockAlgError` (serial runs pass a worker's code on).
  int Run();

  void SetBlockStructure(CBlockStructure * structure) { m_pBlockStructure = structure; }
  /// Not owned; may be null. A parallel run joins the workers' counters into it.
  void SetProgressCounter(CProgressCounter * progress) { m_pProgress = progress; }
  CProgressCounter * GetProgressCounter() const { return m_pProgress; }
  /// Apply every block's changes to the model as soon as it is processed.
  void SetImmediateBlockModify(bool modify) { m_bModifyImmediately = modify; }
  bool DoModifyImmediately() const { return m_bModifyImmediately; }
  /// Extract a fragment of the model for every block (needs immediate modify).
  void SetExtractBlock(bool extract) { m_bExtract = extract; }
  bool DoBlockExtract() const { return m_bExtract; }
  void SetNPasses(int passes) { m_iNPasses = passes; }
  int GetNPasses() const { return m_iNPasses; }
  int TotalPassNum() const { return m_iNPasses; }
  /// Number of worker threads; more than one turns parallel work on, one or
  /// less turns it off.
  void SetNParralelThreads(int threads)
  {
    m_iNParallelThreads = threads;
    m_bUseParallelThreads = threads > 1;
  }
  int GetNParralelThreads() const { return m_iNParallelThreads; }
  /// Turning parallel work off leaves one thread.
  void SetUseParallelThreads(bool use)
  {
    m_bUseParallelThreads = use;
    if (!use)
      m_iNParallelThreads = 1;
  }
  bool IsUseParallelThreads() const { return m_bUseParallelThreads; }
  /// The run ends after the pass in progress.
  void SetThisPassLast() { m_iCurrentPass = m_iNPasses - 1; }
  int CurrentPassNo() const { return m_iCurrentPass; }
  /// A user break ends the run at once with status 10 (any thread may set it;
  /// every `Run` starts with it cleared).
  void SetUserBreak(bool userBreak) { m_bUserBreak.store(userBreak); }
  bool IsUserBreak() const { return m_bUserBreak.load(); }
  IVescaBlockingEvent * GetOneBlockFinishedEvent() const { return m_pOneBlockFinishedEvent.get(); }
  IVescaBlockingEvent * GetAbortEvent() const { return m_pAbortEvent.get(); }
  /// Ends the run at once: status 10 when a user break is set, else -1.
  void SetAbortEvent() { m_pAbortEvent->set(); }
  /// Trace of a parallel run (null: none). Must be thread-safe.
  void SetDebugLog(VsUt::IDebugLog * log) { m_pDebugLog = log; }
  VsUt::IDebugLog * GetDebugLog() const { return m_pDebugLog; }

protected:
  virtual void PreliminaryGlobalActions() {}
  virtual void PreliminaryPassActions() {}
  virtual void FinalGlobalActions() {}
  virtual void FinalPassActions() {}
  /// A block of a serial run that does not modify the model immediately.
  virtual void SingleBlockProcess(IVescaFragmentDescriptor_Old & desc);
  /// Writes a processed block back (under all read mutexes in a parallel run).
  virtual void ApplyBlockChanges(IVescaFragmentDescriptor_Old const & desc, IVescaFragment_Old * fragment);
  /// Called for every block, in order, at the end of a pass that did not
  /// modify the model immediately.
  virtual void ApplyBlockChangesBlockNotExtr(IVescaFragmentDescriptor_Old const & desc);
  /// A new worker, owned by the processor from now on (`parallel`: for a
  /// worker thread). Null ends the run with -1.
  virtual CBlockWorker * CreateBlockWorker(bool parallel) = 0;
  /// A block's data out of the model (under the worker's read mutex in a
  /// parallel run); null is an empty block, which counts as finished.
  virtual IVescaFragment_Old * ExtractBlock(IVescaFragmentDescriptor_Old const & desc);
  /// True to run `BlockInitUnshared` under all read mutexes.
  virtual bool NeedUnsharedWorkerInit() const { return false; }
  virtual void ResetWholeProcessStatus() {}
  /// 0 passes; 10 throws `CUserIntrException`; anything else `EBlockAlgError`.
  virtual void CheckWorkerResult(int code);
  virtual int GetWholeProcessResult() const { return 0; }
  virtual void InitThreadedPrgCnt();
  virtual void ReleaseThreadedPrgCnt();
  virtual void UpdateParentPrgCnt();
  virtual void RegisterWorkerPrgCnt(CBlockWorker * worker);
  virtual void UnRegisterWorkerPrgCnt(CBlockWorker * worker);
  virtual void OnBlockProcessStart(Block_iter block, CBlockWorker * worker);
  virtual void OnBlockProcessFinish(Block_iter block, CBlockWorker * worker);

  /// A block of a serial run that modifies the model immediately.
  void SingleBlockProcessAndApply(IVescaFragmentDescriptor_Old & desc);
  /// One pass over the blocks on worker threads; the calling thread manages.
  void ParallelBlockProcess();

  // Scheduling; callers hold the block mutex.
  Block_iter LockNextBlock(CBlockWorker * worker);
  void UnLockBlock(Block_iter block, CBlockWorker * worker);
  bool HasCurrentJob() const;
  bool HasPotentialJob() const;
  bool IsBlockProcessed(IVescaFragmentDescriptor_Old const & desc) const;
  bool IsBlockReadyForProcess(IVescaFragmentDescriptor_Old const & desc) const;

  /// One block on a worker's thread, holding no lock at entry.
  void BlockProcessCore(CBlockWorker & worker, IVescaFragmentDescriptor_Old & desc);
  /// All read mutexes in list order (the write side), without trace lines.
  void LockAllMutexes(int workerId);
  void UnlockAllMutexes(int workerId);
  /// A new read mutex for a worker; the processor owns it until the next pass.
  IVescaMutex * AddWorkerReadMutex();

  CBlockStructure * GetBlockStructure() const { return m_pBlockStructure; }
  IVescaMutex * GetBlockMutex() const { return m_pBlockMutex.get(); }
  Block_iter BlockEnd() const;
  /// Starts a pass: schedule back to the first block, read mutexes dropped.
  void OnBlockStructureInit();
  /// Blocks of the pass, and blocks finished in it (read under the block mutex
  /// during a parallel run).
  int GetPassBlockCount() const { return m_iBlockCount; }
  int GetFinishedBlockCount() const { return m_iFinishedBlocks; }
  /// The joint counter of a parallel run, null outside one.
  CPrgCntBlocksTreaded * GetThreadedPrgCnt() const { return m_pThreadedPrgCnt.get(); }

private:
  friend class CBlockWorker;
  friend class detail::CAllMutexesLocker;

  bool isBehindNext(IVescaFragmentDescriptor_Old const * desc) const;
  bool isProcessed(IVescaFragmentDescriptor_Old const * desc) const;
  bool isReady(IVescaFragmentDescriptor_Old const * desc) const;
  void serialBlockProcess();
  void processSerialBlock(IVescaFragmentDescriptor_Old & desc, bool apply);
  // Throws the run's end when a user break or an abort was requested.
  void checkSerialAbort();

  CBlockStructure * m_pBlockStructure = nullptr;
  CProgressCounter * m_pProgress = nullptr;
  std::vector<IVescaMutexPtr> m_vReadMutexes;
  bool m_bModifyImmediately = false;
  bool m_bExtract = false;
  int m_iNPasses = 1;
  int m_iNParallelThreads = 0;
  Block_iter m_NextBlock;
  std::vector<Block_iter> m_vBlocksInWork;
  std::vector<Block_iter> m_vFinishedBlocks;
  int m_iBlockCount = -1;
  int m_iFinishedBlocks = 0;
  std::atomic<bool> m_bUserBreak{false};
  std::atomic<int> m_iCurrentPass{-1};
  std::unique_ptr<IVescaBlockingEvent> m_pOneBlockFinishedEvent;
  std::unique_ptr<IVescaBlockingEvent> m_pAbortEvent;
  IVescaMutexPtr m_pBlockMutex;
  std::unique_ptr<CPrgCntBlocksTreaded> m_pThreadedPrgCnt;
  bool m_bUseParallelThreads = false;
  VsUt::IDebugLog * m_pDebugLog = nullptr;
};
} // namespace BlockProc
