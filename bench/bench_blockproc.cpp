// The block processor on a chain of blocks where each conflicts with its two
// neighbours: one pass, serial and with 2 and 4 workers. "light" blocks
// (a few microseconds each) show what the schedule itself costs per block;
// "heavy" blocks (about a millisecond) show how the work spreads over the
// workers. A parallel pass also pays the manager's last 50 ms sleep before it
// notices that the workers have ended. Prints medians.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "QZmath/BlockProcessor/BlockProc.h"

namespace
{
struct tf_Desc : IVescaFragmentDescriptor_Old
{
  int index = 0;
};

class tf_Chain : public BlockProc::CBlockStructure
{
public:
  explicit tf_Chain(int count) : m_blocks(static_cast<std::size_t>(count))
  {
    for (int i = 0; i < count; ++i)
      m_blocks[static_cast<std::size_t>(i)].index = i;
  }
  int Index(IVescaFragmentDescriptor_Old const * d) const { return static_cast<tf_Desc const *>(d)->index; }
  void NextBlock(BlockProc::Block_iter & it) const override
  {
    std::size_t const next = static_cast<std::size_t>(Index(it.GetDesc()) + 1);
    it.SetDesc(next < m_blocks.size() ? &m_blocks[next] : nullptr);
  }
  void OnNewPass() override {}
  bool AreBlocksIndependent(IVescaFragmentDescriptor_Old const * a, IVescaFragmentDescriptor_Old const * b) const override
  {
    int const d = Index(a) - Index(b);
    return d > 1 || d < -1;
  }
  int BlockCount() const override { return static_cast<int>(m_blocks.size()); }
  void BlockBegin(BlockProc::Block_iter & it) const override
  {
    it = BlockProc::Block_iter(m_blocks.empty() ? nullptr : &m_blocks[0], this);
  }
  void BlockEnd(BlockProc::Block_iter & it) const override { it = BlockProc::Block_iter(nullptr, this); }
  int BlockIndex(BlockProc::Block_iter block) const override { return block.GetDesc() ? Index(block.GetDesc()) : -1; }

private:
  mutable std::vector<tf_Desc> m_blocks;
};

class tf_Worker : public BlockProc::CBlockWorker
{
public:
  tf_Worker(BlockProc::CBlockProcessor * processor, bool own, int rounds, std::vector<std::uint64_t> & out)
      : CBlockWorker(processor, own), m_rounds(rounds), m_out(out)
  {
  }
  int ProcessFragment(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old *) override
  {
    int const b = static_cast<tf_Desc &>(desc).index;
    std::uint64_t v = static_cast<std::uint64_t>(b) + 1;
    for (int r = 0; r < m_rounds; ++r)
      v = (v ^ (v >> 29)) * 0xbf58476d1ce4e5b9ULL + static_cast<std::uint64_t>(r);
    m_out[static_cast<std::size_t>(b)] = v;
    return 0;
  }
  void BlockFinalize(IVescaFragmentDescriptor_Old &, IVescaFragment_Old *) override {}

private:
  int m_rounds;
  std::vector<std::uint64_t> & m_out;
};

class tf_Processor : public BlockProc::CBlockProcessor
{
public:
  tf_Processor(tf_Chain & chain, int rounds) : m_rounds(rounds), m_out(static_cast<std::size_t>(chain.BlockCount()))
  {
    SetBlockStructure(&chain);
  }
  std::vector<std::uint64_t> const & Out() const { return m_out; }

protected:
  BlockProc::CBlockWorker * CreateBlockWorker(bool parallel) override
  {
    return new tf_Worker(this, parallel, m_rounds, m_out);
  }

private:
  int m_rounds;
  std::vector<std::uint64_t> m_out;
};

void runChain(benchmark::State & state, int blocks, int rounds)
{
  int const workers = static_cast<int>(state.range(0));
  tf_Chain chain(blocks);
  tf_Processor processor(chain, rounds);
  processor.SetNParralelThreads(workers);
  for (auto _ : state)
  {
    int const status = processor.Run();
    if (status != 0)
      state.SkipWithError("Run failed");
    benchmark::DoNotOptimize(processor.Out().data());
  }
  state.counters["blocks"] = blocks;
}

void BM_ChainLight(benchmark::State & state) { runChain(state, 2000, 200); }
void BM_ChainHeavy(benchmark::State & state) { runChain(state, 200, 400000); }
} // namespace

BENCHMARK(BM_ChainLight)->Arg(1)->Arg(2)->Arg(4)->UseRealTime()->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_ChainHeavy)->Arg(1)->Arg(2)->Arg(4)->UseRealTime()->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

BENCHMARK_MAIN();
