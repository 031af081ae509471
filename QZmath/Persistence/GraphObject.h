#pragma once
// The base class of an object in a scene: an id, the flags active, selected
// and visible, and three optional colours (its own, a temporary one and that
// of its group). A colour that is not set is reported as absent rather than
// as a default, so that the caller decides what stands in for it.

/// Base of selectable scene objects. Copies carry every field.
class CGraphObject
{
public:
  CGraphObject() = default;
  CGraphObject(CGraphObject const &) = default;
  CGraphObject & operator=(CGraphObject const &) = default;
  virtual ~CGraphObject() = default;

  virtual void setSelected(bool selected) { m_bSelected = selected; }
  virtual void setID(unsigned long id) { m_ulID = id; }
  /// False, with `color` untouched, when the object has no colour of its own.
  virtual bool getOwnColor(unsigned long & color) const;
  /// Sets the colour and marks it present; returns true.
  virtual bool setOwnColor(unsigned long color);
  virtual void deleteOwnColor() { m_bHasOwnColor = false; }

  unsigned long getID() const { return m_ulID; }
  bool isActive() const { return m_bActive; }
  bool isSelected() const { return m_bSelected; }
  bool isVisible() const { return m_bVisible; }
  /// Stores the flag and tells the subclass, even when nothing changed.
  void setActive(bool active);
  /// Stores the flag and tells the subclass, even when nothing changed.
  void setVisible(bool visible);

  bool getTempColor(unsigned long & color) const;
  void setTempColor(unsigned long color);
  void deleteTempColor() { m_bHasTempColor = false; }
  bool getGroupColor(unsigned long & color) const;
  void setGroupColor(unsigned long color);
  void deleteGroupColor() { m_bHasGroupColor = false; }

private:
  virtual void OnActivation() {}
  virtual void OnChangeVisibility() {}

  unsigned long m_ulID = 0;
  bool m_bActive = true;
  bool m_bSelected = false;
  /// Kept for subclasses' state; nothing here reads or writes it but a copy.
  bool m_bReserved = false;
  bool m_bVisible = true;
  unsigned long m_ulOwnColor = 0;
  bool m_bHasOwnColor = false;
  unsigned long m_ulTempColor = 0;
  bool m_bHasTempColor = false;
  unsigned long m_ulGroupColor = 0;
  bool m_bHasGroupColor = false;
};
