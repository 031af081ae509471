#pragma once
// A client of the block processor for the tests: a W x H grid of blocks over a
// model of integer cells.
//
// Pass p, block b: from the seed of b (the sum of its cells when the pass
// began) the worker computes contributions for every cell of the 3 x 3 blocks
// around b, and applying the block adds them in. Additions of unsigned
// integers commute, so every schedule gives the same model as the plain loops
// of `ReferenceCells`; blocks whose neighbourhoods overlap (Chebyshev distance
// 2 or less) conflict, so no two writers touch one cell at once. The client
// also checks the engine's promises while it runs: conflicting blocks are
// never in work together, and model reads and writes follow the
// reader-writer protocol.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
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
  int x = 0;
  int y = 0;
};

inline GridDesc const & Grid(IVescaFragmentDescriptor_Old const & desc)
{
  return static_cast<GridDesc const &>(desc);
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
    {
      GridDesc & d = m_blocks[static_cast<std::size_t>(i)];
      d.index = i;
      d.x = i % width;
      d.y = i / width;
    }
  }
  int Width() const { return m_width; }
  int Height() const { return m_height; }
  int Count() const { return m_width * m_height; }
  GridDesc & Block(int i) const { return m_blocks[static_cast<std::size_t>(i)]; }
  Block_iter At(int i) const { return Block_iter(&Block(i), this); }
  bool Conflict(int a, int b) const
  {
    if (a == b || m_radius < 0)
      return true;
    GridDesc const & p = Block(a);
    GridDesc const & q = Block(b);
    return std::max(std::abs(p.x - q.x), std::abs(p.y - q.y)) <= m_radius;
  }
  int NewPassCalls() const { return m_newPasses; }

  void NextBlock(Block_iter & it) const override
  {
    int const next = Grid(*it.GetDesc()).index + 1;
    it.SetDesc(next < Count() ? &Block(next) : nullptr);
  }
  void OnNewPass() override { ++m_newPasses; }
  bool AreBlocksIndependent(IVescaFragmentDescriptor_Old const * desc,
                            IVescaFragmentDescriptor_Old const * otherDesc) const override
  {
    return !Conflict(Grid(*desc).index, Grid(*otherDesc).index);
  }
  int BlockCount() const override { return Count(); }
  void BlockBegin(Block_iter & it) const override
  {
    it = Block_iter(Count() > 0 ? &Block(0) : nullptr, this);
  }
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
  v ^= v >> 33;
  return v;
}

inline std::uint64_t InitialCell(int block, int cell)
{
  return Mix(static_cast<std::uint64_t>(block) * 131 + cell + 7);
}

/// Calls `f(cell)` for every cell of the blocks around `b` (inside the grid
/// only), in the order: neighbour blocks row by row, their cells in order.
template <class F> void ForNeighbourCells(int width, int height, int b, F f)
{
  int const bx = b % width, by = b / width;
  for (int y = std::max(by - 1, 0); y <= std::min(by + 1, height - 1); ++y)
    for (int x = std::max(bx - 1, 0); x <= std::min(bx + 1, width - 1); ++x)
      for (int c = 0; c < st_CellsPerBlock; ++c)
        f((y * width + x) * st_CellsPerBlock + c);
}

/// What block `b` adds; `rounds` sets how long a block takes.
inline std::vector<std::uint64_t> Contributions(int width, int height, int b, std::uint64_t seed, int pass,
                                                int rounds)
{
  std::vector<std::uint64_t> add;
  ForNeighbourCells(width, height, b,
                    [&](int cell)
                    {
                      std::uint64_t v =
                          seed ^ (static_cast<std::uint64_t>(pass) << 40) ^ static_cast<std::uint64_t>(cell);
                      for (int r = 0; r < rounds; ++r)
                        v = Mix(v + r);
                      add.push_back(v);
                    });
  return add;
}

inline void AddContributions(std::vector<std::uint64_t> & cells, int width, int height, int b,
                             std::vector<std::uint64_t> const & add)
{
  std::size_t k = 0;
  ForNeighbourCells(width, height, b,
                    [&](int cell) { cells[static_cast<std::size_t>(cell)] += add.at(k++); });
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
  for (int b = 0; b < blocks; ++b)
    for (int c = 0; c < st_CellsPerBlock; ++c)
      cells.push_back(InitialCell(b, c));
  return cells;
}

/// The model after `passes` passes, by plain loops.
inline std::vector<std::uint64_t> ReferenceCells(int width, int height, int passes, int rounds)
{
  int const blocks = width * height;
  std::vector<std::uint64_t> cells = InitialCells(blocks);
  for (int p = 0; p < passes; ++p)
  {
    std::vector<std::uint64_t> seeds;
    for (int b = 0; b < blocks; ++b)
      seeds.push_back(Seed(cells, b));
    for (int b = 0; b < blocks; ++b)
      AddContributions(cells, width, height, b, Contributions(width, height, b, seeds[b], p, rounds));
  }
  return cells;
}

struct GridFragment : IVescaFragment_Old
{
  static std::atomic<int> s_live;
  GridFragment(int b, std::uint64_t s) : block(b), seed(s) { ++s_live; }
  ~GridFragment() override { --s_live; }
  int block;
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
  Interrupt, // the user interrupts the processor's counter during the block
  UserBreak, // the client calls SetUserBreak(true) during the block
  Abort,     // the client calls SetAbortEvent() during the block
};

class GridProcessor;

class GridWorker : public BlockProc::CBlockWorker
{
public:
  static std::atomic<int> s_live;
  GridWorker(GridProcessor * processor, bool parallel);
  ~GridWorker() override { --s_live; }

  void Init() override;
  bool BlockInit(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old * fragment) override;
  bool BlockInitUnshared(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old * fragment) override;
  int ProcessFragment(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old * fragment) override;
  void BlockFinalize(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old * fragment) override;

private:
  GridProcessor * m_grid;
  bool m_parallel;
};
inline std::atomic<int> GridWorker::s_live{0};

class GridProcessor : public BlockProc::CBlockProcessor
{
public:
  explicit GridProcessor(GridStructure & structure) : m_structure(structure)
  {
    SetBlockStructure(&structure);
    cells = InitialCells(structure.Count());
    seeds.assign(static_cast<std::size_t>(structure.Count()), 0);
    pending.resize(static_cast<std::size_t>(structure.Count()));
    processed.assign(static_cast<std::size_t>(structure.Count()), 0);
  }

  // ---- configuration of a test
  int rounds = 20;
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
  CProgressCounter * interruptTarget = nullptr;
  // Called by ProcessFragment before the work (with the block index).
  std::function<void(int)> onProcess;

  // ---- the model
  std::vector<std::uint64_t> cells;
  std::vector<std::uint64_t> seeds;
  std::vector<std::vector<std::uint64_t>> pending;

  // ---- what happened
  std::vector<int> processed; // ProcessFragment calls per block, all passes
  std::vector<int> applied;   // blocks in the order of ApplyBlockChanges (shared model state)
  std::atomic<int> starts{0}, finishes{0}, creations{0};
  std::atomic<int> finalizes{0};
  std::atomic<bool> conflictSeen{false}, lockViolation{false};
  std::atomic<int> maxInWork{0};

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
  GridStructure & Structure() const { return m_structure; }
  // The progress at each pass start and at the global end, when counted.
  std::vector<double> positions;
  void RecordPosition()
  {
    if (GetProgressCounter())
      positions.push_back(GetProgressCounter()->GetPosFloat());
  }

  // Work on block b begins / ends: no block that conflicts with it may be in
  // work meanwhile.
  void Enter(int b)
  {
    std::lock_guard<std::mutex> lock(m_activeMutex);
    for (int a : m_active)
      if (m_structure.Conflict(a, b))
        conflictSeen = true;
    m_active.push_back(b);
    int const n = static_cast<int>(m_active.size());
    int seen = maxInWork.load();
    while (n > seen && !maxInWork.compare_exchange_weak(seen, n))
    {
    }
  }
  void Leave(int b)
  {
    std::lock_guard<std::mutex> lock(m_activeMutex);
    m_active.erase(std::find(m_active.begin(), m_active.end(), b));
  }
  // Model access: readers may overlap each other, never a writer.
  void BeginRead()
  {
    ++m_readers;
    if (m_writers.load() != 0)
      lockViolation = true;
  }
  void EndRead() { --m_readers; }
  void BeginWrite()
  {
    if (++m_writers != 1 || m_readers.load() != 0)
      lockViolation = true;
  }
  void EndWrite() { --m_writers; }
  bool Parallel() const { return IsUseParallelThreads(); }

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
  BlockProc::CBlockWorker * CreateBlockWorker(bool parallel) override
  {
    int const n = creations++;
    if (recordWorkerOps)
      Record("create");
    if (parallel && n == failCreateAt)
      throw std::bad_alloc();
    if (parallel && n == nullCreateAt)
      return nullptr;
    return new GridWorker(this, parallel);
  }
  IVescaFragment_Old * ExtractBlock(IVescaFragmentDescriptor_Old const & desc) override
  {
    int const b = Grid(desc).index;
    if (recordWorkerOps)
      Record("extract " + std::to_string(b));
    BeginRead();
    std::size_t const appliedSoFar = applied.size(); // read of shared model state
    (void)appliedSoFar;
    EndRead();
    if (b == emptyBlock)
      return nullptr;
    return new GridFragment(b, seeds[static_cast<std::size_t>(b)]);
  }
  void ApplyBlockChanges(IVescaFragmentDescriptor_Old const & desc, IVescaFragment_Old * fragment) override
  {
    int const b = Grid(desc).index;
    if (recordWorkerOps)
      Record("apply " + std::to_string(b));
    if (Parallel())
      BeginWrite();
    Enter(b);
    auto const * grid = static_cast<GridFragment const *>(fragment);
    AddContributions(cells, m_structure.Width(), m_structure.Height(), b,
                     grid ? grid->add : pending[static_cast<std::size_t>(b)]);
    applied.push_back(b);
    Leave(b);
    if (Parallel())
      EndWrite();
  }
  void ApplyBlockChangesBlockNotExtr(IVescaFragmentDescriptor_Old const & desc) override
  {
    int const b = Grid(desc).index;
    Record("not-extracted " + std::to_string(b));
    AddContributions(cells, m_structure.Width(), m_structure.Height(), b,
                     pending[static_cast<std::size_t>(b)]);
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
  friend class GridWorker;
  GridStructure & m_structure;
  mutable std::mutex m_eventsMutex;
  std::vector<std::string> m_events;
  std::mutex m_activeMutex;
  std::vector<int> m_active;
  std::atomic<int> m_readers{0}, m_writers{0};
};

inline GridWorker::GridWorker(GridProcessor * processor, bool parallel)
    : CBlockWorker(processor, parallel), m_grid(processor), m_parallel(parallel)
{
  ++s_live;
}

inline void GridWorker::Init()
{
  if (m_grid->recordWorkerOps)
    m_grid->Record("init");
  if (m_grid->initThrows)
    throw std::runtime_error("worker cannot start");
}

inline bool GridWorker::BlockInit(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old *)
{
  int const b = Grid(desc).index;
  if (m_grid->recordWorkerOps)
    m_grid->Record("block-init " + std::to_string(b));
  return b != m_grid->skipBlock;
}

inline bool GridWorker::BlockInitUnshared(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old *)
{
  if (m_grid->recordWorkerOps)
    m_grid->Record("block-init-unshared " + std::to_string(Grid(desc).index));
  // Asked for unshared, it runs with the model write-locked; otherwise it
  // still holds the worker's read lock.
  if (m_parallel && m_grid->unshared)
  {
    m_grid->BeginWrite();
    m_grid->EndWrite();
  }
  else if (m_parallel)
  {
    m_grid->BeginRead();
    m_grid->EndRead();
  }
  return true;
}

inline int GridWorker::ProcessFragment(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old * fragment)
{
  int const b = Grid(desc).index;
  if (m_grid->recordWorkerOps)
    m_grid->Record("process " + std::to_string(b));
  if (m_grid->onProcess)
    m_grid->onProcess(b);
  m_grid->Enter(b);
  struct LC_Leave
  {
    GridProcessor * grid;
    int b;
    ~LC_Leave() { grid->Leave(b); }
  } leave{m_grid, b};
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
      m_grid->interruptTarget->RequestInterrupt();
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
  std::uint64_t const seed =
      fragment ? static_cast<GridFragment *>(fragment)->seed : m_grid->seeds[static_cast<std::size_t>(b)];
  std::vector<std::uint64_t> add = Contributions(m_grid->Structure().Width(), m_grid->Structure().Height(), b,
                                                 seed, m_grid->CurrentPassNo(), m_grid->rounds);
  if (fragment)
    static_cast<GridFragment *>(fragment)->add = std::move(add);
  else
    m_grid->pending[static_cast<std::size_t>(b)] = std::move(add);
  return 0;
}

inline void GridWorker::BlockFinalize(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old *)
{
  if (m_grid->recordWorkerOps)
    m_grid->Record("finalize " + std::to_string(Grid(desc).index));
  ++m_grid->finalizes;
}

/// The scheduling interface made public, for driving a processor by hand.
class ExposedProcessor : public GridProcessor
{
public:
  using BlockProc::CBlockProcessor::BlockEnd;
  using BlockProc::CBlockProcessor::GetBlockMutex;
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

/// Runs `Run()` on a thread of its own; a run that does not end within the
/// deadline fails the test and stops the program rather than hanging it.
inline int RunWithDeadline(BlockProc::CBlockProcessor & processor, int seconds = 60)
{
  std::packaged_task<int()> task([&processor] { return processor.Run(); });
  std::future<int> result = task.get_future();
  std::thread runner(std::move(task));
  if (result.wait_for(std::chrono::seconds(seconds)) != std::future_status::ready)
  {
    ADD_FAILURE() << "Run() did not end within " << seconds << " s";
    std::fflush(nullptr);
    std::_Exit(3);
  }
  runner.join();
  return result.get();
}

/// Waits for `done` up to the deadline; a hang fails the test and stops the
/// program instead of blocking the suite.
inline void FinishWithin(std::future<void> & done, int seconds = 30)
{
  if (done.wait_for(std::chrono::seconds(seconds)) != std::future_status::ready)
  {
    ADD_FAILURE() << "no end within " << seconds << " s";
    std::fflush(nullptr);
    std::_Exit(3);
  }
  done.get();
}

inline int Count(std::vector<std::string> const & lines, std::string const & needle)
{
  return static_cast<int>(std::count_if(lines.begin(), lines.end(),
                                        [&](std::string const & l)
                                        { return l.find(needle) != std::string::npos; }));
}
} // namespace BlockTest
