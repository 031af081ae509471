#pragma once
// A client of the block processor for the tests: a W x H grid of blocks over a
// model of integer cells.
//
// Pass p, block b: from the seed of b (the sum of its cells when the pass
// began) the worker computes a contribution for every cell of b, and applying
// the block adds them in. A block missed, done twice or applied in another
// pass changes the model, so every right schedule gives the model of the
// plain loops of `ReferenceCells`. Which blocks may be in work together is
// the schedule's answer, checked against a plain scheduler in
// BlockScheduleTest; the locks around model reads and writes show in the
// trace of BlockWorkerTest.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <future>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "QZmath/BlockProcessor/BlockProc.h"

namespace BlockTest
{
using BlockProc::Block_iter;

struct GridDesc : IVescaFragmentDescriptor_Old
{
  int index = 0;
};

inline int Index(IVescaFragmentDescriptor_Old const & desc)
{
  return static_cast<GridDesc const &>(desc).index;
}

/// Blocks in one array (ascending addresses along the walk); the end position
/// holds a null descriptor. A negative radius makes every block conflict with
/// every other.
class GridStructure : public BlockProc::CBlockStructure
{
public:
  GridStructure(int width, int height, int conflictRadius)
      : m_width(width), m_height(height), m_radius(conflictRadius),
        m_blocks(static_cast<std::size_t>(Count()))
  {
    for (int i = 0; i < Count(); ++i)
      Block(i).index = i;
  }
  int Count() const { return m_width * m_height; }
  GridDesc & Block(int i) const { return m_blocks[static_cast<std::size_t>(i)]; }
  Block_iter At(int i) const { return Block_iter(i < Count() ? &Block(i) : nullptr, this); }
  bool Conflict(int a, int b) const
  {
    int const dx = std::abs(a % m_width - b % m_width), dy = std::abs(a / m_width - b / m_width);
    return a == b || m_radius < 0 || std::max(dx, dy) <= m_radius;
  }
  int NewPassCalls() const { return m_newPasses; }

  void NextBlock(Block_iter & it) const override { it = At(Index(*it.GetDesc()) + 1); }
  void OnNewPass() override { ++m_newPasses; }
  bool AreBlocksIndependent(IVescaFragmentDescriptor_Old const * desc,
                            IVescaFragmentDescriptor_Old const * otherDesc) const override
  {
    return !Conflict(Index(*desc), Index(*otherDesc));
  }
  int BlockCount() const override { return Count(); }
  void BlockBegin(Block_iter & it) const override { it = At(0); }
  void BlockEnd(Block_iter & it) const override { it = Block_iter(nullptr, this); }

private:
  int m_width, m_height, m_radius;
  // Blocks hand out non-const descriptors from const queries.
  mutable std::vector<GridDesc> m_blocks;
  int m_newPasses = 0;
};

// ---------------------------------------------------------------- the model

constexpr int st_CellsPerBlock = 8;

inline std::uint64_t Mix(std::uint64_t v)
{
  v ^= v >> 33;
  v *= 0xff51afd7ed558ccdULL;
  v ^= v >> 33;
  v *= 0xc4ceb9fe1a85ec53ULL;
  return v ^ (v >> 33);
}

/// What block `b` adds to its cells; the rounds of mixing make a block take
/// a while.
inline std::vector<std::uint64_t> Contributions(int b, std::uint64_t seed, int pass)
{
  std::vector<std::uint64_t> add;
  for (int cell = b * st_CellsPerBlock; cell < (b + 1) * st_CellsPerBlock; ++cell)
  {
    std::uint64_t v = seed ^ (std::uint64_t(pass) << 40) ^ std::uint64_t(cell);
    for (int r = 0; r < 20; ++r)
      v = Mix(v + r);
    add.push_back(v);
  }
  return add;
}

inline void AddContributions(std::vector<std::uint64_t> & cells, int b,
                             std::vector<std::uint64_t> const & add)
{
  for (int c = 0; c < st_CellsPerBlock; ++c)
    cells[static_cast<std::size_t>(b * st_CellsPerBlock + c)] += add.at(static_cast<std::size_t>(c));
}

inline std::uint64_t Seed(std::vector<std::uint64_t> const & cells, int b)
{
  std::uint64_t s = 0;
  for (int c = 0; c < st_CellsPerBlock; ++c)
    s += cells[static_cast<std::size_t>(b * st_CellsPerBlock + c)];
  return s;
}

inline std::vector<std::uint64_t> InitialCells(int blocks)
{
  std::vector<std::uint64_t> cells;
  for (int cell = 0; cell < blocks * st_CellsPerBlock; ++cell)
    cells.push_back(Mix(std::uint64_t(cell / st_CellsPerBlock) * 131 + cell % st_CellsPerBlock + 7));
  return cells;
}

/// The model after `passes` passes, by plain loops.
inline std::vector<std::uint64_t> ReferenceCells(int blocks, int passes)
{
  std::vector<std::uint64_t> cells = InitialCells(blocks);
  for (int p = 0; p < passes; ++p)
  {
    std::vector<std::uint64_t> seeds;
    for (int b = 0; b < blocks; ++b)
      seeds.push_back(Seed(cells, b));
    for (int b = 0; b < blocks; ++b)
      AddContributions(cells, b, Contributions(b, seeds[b], p));
  }
  return cells;
}

struct GridFragment : IVescaFragment_Old
{
  static std::atomic<int> s_live;
  GridFragment(std::uint64_t s) : seed(s) { ++s_live; }
  ~GridFragment() override { --s_live; }
  std::uint64_t seed;
  std::vector<std::uint64_t> add;
};
inline std::atomic<int> GridFragment::s_live{0};

// ---------------------------------------------------------------- the client

enum class EFail
{
  None,
  Code,      // ProcessFragment returns `failCode`
  Throw,     // ProcessFragment throws std::runtime_error
  BadAlloc,  // ProcessFragment throws std::bad_alloc
  Interrupt, // the user interrupts the processor's counter during the block (there must be one)
  UserBreak, // the client calls SetUserBreak(true) during the block
  Abort,     // the client calls SetAbortEvent() during the block
};

class GridProcessor : public BlockProc::CBlockProcessor
{
public:
  explicit GridProcessor(GridStructure & structure) : m_structure(structure)
  {
    SetBlockStructure(&structure);
    std::size_t const n = static_cast<std::size_t>(structure.Count());
    cells = InitialCells(structure.Count());
    seeds.assign(n, 0);
    pending.resize(n);
    processed.assign(n, 0);
  }

  // ---- configuration of a test
  EFail fail = EFail::None;
  int failBlock = -1;
  int failCode = 0;
  int emptyBlock = -1;     // ExtractBlock gives null for it
  int skipBlock = -1;      // BlockInit answers false for it
  bool unshared = false;   // NeedUnsharedWorkerInit
  int failCreateAt = -1;   // the n-th parallel CreateBlockWorker throws bad_alloc
  int nullCreateAt = -1;   // ... returns null
  bool initThrows = false; // GridWorker::Init throws
  bool recordWorkerOps = false;
  int wholeResult = 0;
  int lastPass = -1; // SetThisPassLast() in this pass
  // Called by ProcessFragment before the work (with the block index).
  std::function<void(int)> onProcess;

  // ---- the model
  std::vector<std::uint64_t> cells;
  std::vector<std::uint64_t> seeds;
  std::vector<std::vector<std::uint64_t>> pending;

  // ---- what happened
  std::vector<int> processed; // ProcessFragment calls per block, all passes
  std::vector<int> applied;   // blocks in the order of ApplyBlockChanges
  std::atomic<int> starts{0}, finishes{0}, creations{0}, finalizes{0};
  // The progress at each pass start and at the global end, when counted.
  std::vector<double> positions;

  std::vector<std::string> Events() const
  {
    std::lock_guard<std::mutex> lock(m_eventsMutex);
    return m_events;
  }
  void Record(std::string const & event)
  {
    std::lock_guard<std::mutex> lock(m_eventsMutex);
    m_events.push_back(event);
  }
  /// A worker's or an extraction's step, recorded only when asked for.
  void RecordOp(std::string const & op, int b = -1)
  {
    if (recordWorkerOps)
      Record(b < 0 ? op : op + " " + std::to_string(b));
  }
  void RecordPosition()
  {
    if (GetProgressCounter())
      positions.push_back(GetProgressCounter()->GetPosFloat());
  }

  using CBlockProcessor::CheckWorkerResult;

protected:
  void ResetWholeProcessStatus() override { Record("reset"); }
  void PreliminaryGlobalActions() override { Record("global-start"); }
  void FinalGlobalActions() override
  {
    Record("global-end");
    RecordPosition();
  }
  void PreliminaryPassActions() override
  {
    Record("pass-start " + std::to_string(CurrentPassNo()));
    RecordPosition();
    Record("new-pass-calls " + std::to_string(m_structure.NewPassCalls()));
    for (int b = 0; b < m_structure.Count(); ++b)
      seeds[static_cast<std::size_t>(b)] = Seed(cells, b);
  }
  void FinalPassActions() override
  {
    Record("pass-end " + std::to_string(CurrentPassNo()));
    if (CurrentPassNo() == lastPass)
      SetThisPassLast();
  }
  BlockProc::CBlockWorker * CreateBlockWorker(bool parallel) override;
  IVescaFragment_Old * ExtractBlock(IVescaFragmentDescriptor_Old const & desc) override
  {
    int const b = Index(desc);
    RecordOp("extract", b);
    return b == emptyBlock ? nullptr : new GridFragment(seeds[static_cast<std::size_t>(b)]);
  }
  void ApplyBlockChanges(IVescaFragmentDescriptor_Old const & desc, IVescaFragment_Old * fragment) override
  {
    int const b = Index(desc);
    RecordOp("apply", b);
    auto const * grid = static_cast<GridFragment const *>(fragment);
    AddContributions(cells, b, grid ? grid->add : pending[static_cast<std::size_t>(b)]);
    applied.push_back(b);
  }
  void ApplyBlockChangesBlockNotExtr(IVescaFragmentDescriptor_Old const & desc) override
  {
    int const b = Index(desc);
    Record("not-extracted " + std::to_string(b));
    AddContributions(cells, b, pending[static_cast<std::size_t>(b)]);
  }
  bool NeedUnsharedWorkerInit() const override { return unshared; }
  int GetWholeProcessResult() const override { return wholeResult; }
  void OnBlockProcessStart(Block_iter block, BlockProc::CBlockWorker * worker) override
  {
    ++starts;
    CBlockProcessor::OnBlockProcessStart(block, worker);
  }
  void OnBlockProcessFinish(Block_iter block, BlockProc::CBlockWorker * worker) override
  {
    ++finishes;
    CBlockProcessor::OnBlockProcessFinish(block, worker);
  }

private:
  GridStructure & m_structure;
  mutable std::mutex m_eventsMutex;
  std::vector<std::string> m_events;
};

/// Made by the processor with its own counter exactly when the run is
/// parallel.
class GridWorker : public BlockProc::CBlockWorker
{
public:
  static std::atomic<int> s_live;
  GridWorker(GridProcessor * processor, bool parallel) : CBlockWorker(processor, parallel), m_grid(processor)
  {
    ++s_live;
  }
  ~GridWorker() override { --s_live; }

  void Init() override
  {
    m_grid->RecordOp("init");
    if (m_grid->initThrows)
      throw std::runtime_error("worker cannot start");
  }
  bool BlockInit(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old *) override
  {
    m_grid->RecordOp("block-init", Index(desc));
    return Index(desc) != m_grid->skipBlock;
  }
  bool BlockInitUnshared(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old *) override
  {
    m_grid->RecordOp("block-init-unshared", Index(desc));
    return true;
  }
  int ProcessFragment(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old * fragment) override;
  void BlockFinalize(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old *) override
  {
    m_grid->RecordOp("finalize", Index(desc));
    ++m_grid->finalizes;
  }

private:
  GridProcessor * m_grid;
};
inline std::atomic<int> GridWorker::s_live{0};

inline BlockProc::CBlockWorker * GridProcessor::CreateBlockWorker(bool parallel)
{
  int const n = creations++;
  RecordOp("create");
  if (parallel && n == failCreateAt)
    throw std::bad_alloc();
  return parallel && n == nullCreateAt ? nullptr : new GridWorker(this, parallel);
}

inline int GridWorker::ProcessFragment(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old * fragment)
{
  int const b = Index(desc);
  m_grid->RecordOp("process", b);
  if (m_grid->onProcess)
    m_grid->onProcess(b);
  ++m_grid->processed[static_cast<std::size_t>(b)];
  if (b == m_grid->failBlock)
  {
    switch (m_grid->fail)
    {
    case EFail::None:
      break;
    case EFail::Code:
      return m_grid->failCode;
    case EFail::Throw:
      throw std::runtime_error("block failed");
    case EFail::BadAlloc:
      throw std::bad_alloc();
    case EFail::Interrupt:
      m_grid->GetProgressCounter()->RequestInterrupt();
      if (GetProgressCounter())
        GetProgressCounter()->SetPosFloat(0.5); // throws CUserIntrException
      break;
    case EFail::UserBreak:
      m_grid->SetUserBreak(true);
      break;
    case EFail::Abort:
      m_grid->SetAbortEvent();
      break;
    }
  }
  if (GetProgressCounter())
    GetProgressCounter()->SetPosFloat(0.25);
  auto * grid = static_cast<GridFragment *>(fragment);
  (grid ? grid->add : m_grid->pending[static_cast<std::size_t>(b)]) = Contributions(
      b, grid ? grid->seed : m_grid->seeds[static_cast<std::size_t>(b)], m_grid->CurrentPassNo());
  return 0;
}

/// The scheduling interface made public, for driving a processor by hand.
class ExposedProcessor : public GridProcessor
{
public:
  using BlockProc::CBlockProcessor::BlockEnd;
  using BlockProc::CBlockProcessor::GetFinishedBlockCount;
  using BlockProc::CBlockProcessor::GetPassBlockCount;
  using BlockProc::CBlockProcessor::HasCurrentJob;
  using BlockProc::CBlockProcessor::HasPotentialJob;
  using BlockProc::CBlockProcessor::IsBlockProcessed;
  using BlockProc::CBlockProcessor::IsBlockReadyForProcess;
  using BlockProc::CBlockProcessor::LockNextBlock;
  using BlockProc::CBlockProcessor::OnBlockStructureInit;
  using BlockProc::CBlockProcessor::UnLockBlock;
  using GridProcessor::GridProcessor;
};

// ---------------------------------------------------------------- helpers

/// The positions a progress counter reported, and whether any came from
/// another thread than the one that made the recorder.
struct ProgressRecorder : IProgressObserver
{
  std::vector<double> positions;
  std::thread::id const thread = std::this_thread::get_id();
  bool otherThread = false;
  void onProgress(double pos, std::string const &) override
  {
    otherThread = otherThread || std::this_thread::get_id() != thread;
    positions.push_back(pos);
  }
  bool Rising() const { return std::is_sorted(positions.begin(), positions.end()); }
};

/// `Run()` on a thread of its own, under a deadline: a hang fails the test
/// and stops the program instead of blocking the suite.
inline int RunWithDeadline(BlockProc::CBlockProcessor & processor)
{
  std::future<int> run = std::async(std::launch::async, [&processor] { return processor.Run(); });
  if (run.wait_for(std::chrono::seconds(60)) != std::future_status::ready)
  {
    ADD_FAILURE() << "no end within 60 s";
    std::fflush(nullptr);
    std::_Exit(3);
  }
  return run.get();
}

inline int Count(std::vector<std::string> const & lines, std::string const & needle)
{
  return static_cast<int>(std::count_if(lines.begin(), lines.end(),
                                        [&](std::string const & l)
                                        { return l.find(needle) != std::string::npos; }));
}
} // namespace BlockTest
