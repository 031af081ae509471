#pragma once
// Owners that free extracted fragments and block workers on every way out of
// a block's processing, exceptions included.

namespace BlockProc
{
namespace detail
{
/// Common base, so that owners of different types can be held alike.
class CStoredPtrBase
{
public:
  virtual ~CStoredPtrBase() = default;
};

/// Owns one object (or none) and deletes it in its destructor.
template <class T> class CStoredPtr : public CStoredPtrBase
{
public:
  explicit CStoredPtr(T * object = nullptr) : m_pObject(object) {}
  ~CStoredPtr() override { delete m_pObject; }
  CStoredPtr(CStoredPtr const &) = delete;
  CStoredPtr & operator=(CStoredPtr const &) = delete;

  T * get() const { return m_pObject; }
  T * operator->() const { return m_pObject; }
  T & operator*() const { return *m_pObject; }
  explicit operator bool() const { return m_pObject != nullptr; }

  /// Deletes the object held so far and takes `object`.
  void reset(T * object = nullptr)
  {
    if (object == m_pObject)
      return;
    T * const old = m_pObject;
    m_pObject = object;
    delete old;
  }

private:
  T * m_pObject;
};
} // namespace detail
} // namespace BlockProc
