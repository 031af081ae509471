#pragma once
// What a block is, for the block processor: a walk over block descriptors and
// the rule that tells which blocks may be in work at the same time.

#include "QZsys/Fragments.h"

namespace BlockProc
{
class CBlockStructure;

/// A position in a block structure: the current descriptor and the structure
/// that walks it. The structure decides what the end position holds.
class Block_iter
{
public:
  Block_iter() = default;
  Block_iter(IVescaFragmentDescriptor_Old * desc, CBlockStructure const * structure)
      : m_pDesc(desc), m_pStructure(structure)
  {
  }

  IVescaFragmentDescriptor_Old * GetDesc() const { return m_pDesc; }
  void SetDesc(IVescaFragmentDescriptor_Old * desc) { m_pDesc = desc; }
  CBlockStructure const * GetStructure() const { return m_pStructure; }
  void SetStructure(CBlockStructure const * structure) { m_pStructure = structure; }

  /// Asks the structure to move on; an iterator without a structure stays put.
  Block_iter & operator++();
  Block_iter operator++(int);

  operator IVescaFragmentDescriptor_Old *() const { return m_pDesc; }

  friend bool operator==(Block_iter const & a, Block_iter const & b)
  {
    return a.m_pDesc == b.m_pDesc && a.m_pStructure == b.m_pStructure;
  }
  friend bool operator!=(Block_iter const & a, Block_iter const & b) { return !(a == b); }

private:
  IVescaFragmentDescriptor_Old * m_pDesc = nullptr;
  CBlockStructure const * m_pStructure = nullptr;
};

/// The blocks of a model and their independence. Subclasses own the
/// descriptors.
///
/// Contract with the processor:
/// - descriptors lie in ascending address order along the walk (the processor
///   compares their addresses to know which blocks are behind it);
/// - `AreBlocksIndependent(d, d)` is false: a block in work conflicts with
///   itself only by this answer, the processor does not check it;
/// - the walk from `BlockBegin` reaches `BlockEnd` after `BlockCount()` steps.
/// The queries are called under the processor's block mutex, from any thread.
class CBlockStructure
{
public:
  /// Moves `it` to the next block, or to the end position after the last.
  virtual void NextBlock(Block_iter & it) const = 0;
  virtual ~CBlockStructure() = default;
  /// Called at the start of every pass, before the blocks are walked.
  virtual void OnNewPass() = 0;
  /// True when the two blocks may be in work at the same time.
  virtual bool AreBlocksIndependent(IVescaFragmentDescriptor_Old const * desc,
                                    IVescaFragmentDescriptor_Old const * otherDesc) const = 0;
  virtual int BlockCount() const = 0;
  /// Sets `it` to the first block (the end position when there is none).
  virtual void BlockBegin(Block_iter & it) const = 0;
  /// Sets `it` to the end position.
  virtual void BlockEnd(Block_iter & it) const = 0;
  /// Position of the block along the walk, -1 when the walk does not meet it.
  /// The default walks from the beginning; subclasses with an index at hand
  /// should answer directly.
  virtual int BlockIndex(Block_iter block) const;

  Block_iter Begin() const
  {
    Block_iter it;
    BlockBegin(it);
    return it;
  }
  Block_iter End() const
  {
    Block_iter it;
    BlockEnd(it);
    return it;
  }
};
} // namespace BlockProc
