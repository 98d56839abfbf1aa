// Small entities for exercising the framework itself: a scalar, a keyed collection, and a derived
// entity that adds an attribute of its own.
#pragma once

#include <string>
#include <vector>

#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace IntfsmTest {

class Widget : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<Widget> {
   public:
    virtual void onLevel() {}
    virtual void onItem(Vorn::String const &) {}
    virtual void onItemvornImmediate() {}
  };

  static Vorn::Ptr<Widget> widgetNew(Vorn::Name const & name) { return new Widget(name); }

  int level() const { return level_; }
  void levelIs(int level) { set(level_, level, &NotifieeConst::onLevel); }

  int item(Vorn::String const & key) const { return items_.get(key); }
  uint32_t items() const { return items_.size(); }
  Vorn::Collection<Vorn::String, int> const & itemIter() const { return items_; }
  void itemIs(Vorn::String const & key, int value) {
    if (items_.set(key, value)) notify(&NotifieeConst::onItem, key);
  }
  void itemDel(Vorn::String const & key) {
    if (items_.del(key)) notify(&NotifieeConst::onItem, key);
  }
  void itemNotify(Vorn::String const & key) { notify(&NotifieeConst::onItem, key); }

 protected:
  explicit Widget(Vorn::Name const & name) : Entity(name) {}
  void vornImmediateNotify(Vorn::BaseNotifiee * n) const override {
    notifyOne(n, &NotifieeConst::onItemvornImmediate);
  }

 private:
  int level_ = 0;
  Vorn::Collection<Vorn::String, int> items_;
};

// Extends Widget with an attribute whose notification only a Gadget notifiee can take.
class Gadget : public Widget {
 public:
  class NotifieeConst : public Vorn::Notifiee<Gadget, Widget::NotifieeConst> {
   public:
    virtual void onColour() {}
  };
  static Vorn::Ptr<Gadget> gadgetNew(Vorn::Name const & name) { return new Gadget(name); }
  int colour() const { return colour_; }
  void colourIs(int c) { set(colour_, c, &NotifieeConst::onColour); }

 private:
  explicit Gadget(Vorn::Name const & name) : Widget(name) {}
  int colour_ = 0;
};

// Records every call it receives as a text.
class WidgetRecorder : public Widget::NotifieeConst {
 public:
  explicit WidgetRecorder(Vorn::Ptr<Widget const> const & w = nullptr) {
    if (w) notifierIs(w);
  }
  void onLevel() override { log.push_back("level=" + std::to_string(notifier()->level())); }
  void onItem(Vorn::String const & key) override { log.push_back("item:" + key.stdString()); }
  void onItemvornImmediate() override { log.push_back("items*"); }
  std::vector<std::string> log;
};

}  // namespace IntfsmTest

// For the tests that still name the old namespace; goes when they do.
