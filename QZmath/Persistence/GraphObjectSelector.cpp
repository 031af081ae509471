#include "QZmath/Persistence/GraphObjectSelector.h"

namespace VsF
{
IGraphObjectSelector * IGraphObjectSelector::CreateTotal()
{
  // Local to this function: the only way to make one is through here.
  class CLocalTotalSelector : public IGraphObjectSelector
  {
    bool OnIsActiveAndSelected(const CGraphObject & object) const override { return object.isActive(); }
    IGraphObjectSelector * OnCopy() const override { return new CLocalTotalSelector; }
  };
  return new CLocalTotalSelector;
}
} // namespace VsF
