#pragma once
// An abstract procedure that a caller hands over to be run later: the
// callee knows nothing of it but Run().

namespace VsFn
{
class IFunctor
{
public:
  virtual ~IFunctor() = default;
  void Run() { OnRun(); }

protected:
  IFunctor() = default;

private:
  virtual void OnRun() = 0;
};
} // namespace VsFn
