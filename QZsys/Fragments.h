#pragma once
// Block interfaces of the block-processing engine. The engine only passes
// descriptors and fragments on; clients define what they hold.

class IVescaFragmentDescriptor_Old
{
public:
  virtual ~IVescaFragmentDescriptor_Old() = default;
};

class IVescaFragment_Old
{
public:
  virtual ~IVescaFragment_Old() = default;
};

class IVescaFragmentParallelWorker_Old
{
public:
  virtual ~IVescaFragmentParallelWorker_Old() = default;
  /// Works on one extracted block; returns 0 for success, 10 for a user
  /// interruption, anything else for an error.
  virtual int ProcessFragment(IVescaFragmentDescriptor_Old & desc, IVescaFragment_Old * fragment) = 0;
};
