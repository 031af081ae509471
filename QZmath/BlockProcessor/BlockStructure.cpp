#include "QZmath/BlockProcessor/BlockStructure.h"

namespace BlockProc
{
Block_iter & Block_iter::operator++()
{
  if (m_pStructure)
    m_pStructure->NextBlock(*this);
  return *this;
}

Block_iter Block_iter::operator++(int)
{
  Block_iter const before = *this;
  ++*this;
  return before;
}

int CBlockStructure::BlockIndex(Block_iter block) const
{
  Block_iter const end = End();
  int index = 0;
  for (Block_iter it = Begin(); it != end; ++it, ++index)
    if (it.GetDesc() == block.GetDesc())
      return index;
  return -1;
}
} // namespace BlockProc
