#pragma once
// A predicate on scene objects, for choosing which objects an operation (a
// save, say) takes. Selectors are handed over by pointer and copied through
// Copy(); the caller owns every selector it is given.

#include "QZmath/Persistence/GraphObject.h"

namespace VsF
{
class IGraphObjectSelector
{
  // The virtual operations come first, in the order of the published layout.
  virtual bool OnIsActiveAndSelected(const CGraphObject & object) const = 0;
  virtual IGraphObjectSelector * OnCopy() const = 0;

public:
  bool IsActiveAndSelected(const CGraphObject & object) const { return OnIsActiveAndSelected(object); }
  /// A new selector of the same kind, owned by the caller.
  IGraphObjectSelector * Copy() const { return OnCopy(); }
  virtual ~IGraphObjectSelector() = default;

  /// False for null, otherwise IsActiveAndSelected.
  bool operator()(const CGraphObject * object) const { return object && IsActiveAndSelected(*object); }

  /// A new selector, owned by the caller, that takes every active object.
  static IGraphObjectSelector * CreateTotal();

protected:
  IGraphObjectSelector() = default;
  IGraphObjectSelector(IGraphObjectSelector const &) = default;
  IGraphObjectSelector & operator=(IGraphObjectSelector const &) = default;
};
} // namespace VsF
