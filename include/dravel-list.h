// Walks the items of an Eina list in a range-based for.
#pragma once

#include <Eina.h>

#include <iterator>

// The next node is read before an item is handled, so that the loop's body may
// remove the item.
template <typename Item> class items_of {
public:
  explicit items_of(Eina_List *list) : list_(list) {}

  class iterator {
  public:
    explicit iterator(Eina_List *node) : node_(node), next_(eina_list_next(node)) {}
    Item *operator*() const { return static_cast<Item *>(eina_list_data_get(node_)); }
    iterator &operator++() { return *this = iterator(next_); }
    bool operator==(std::default_sentinel_t) const { return node_ == nullptr; }

  private:
    Eina_List *node_;
    Eina_List *next_;
  };

  iterator begin() const { return iterator(list_); }
  std::default_sentinel_t end() const { return {}; }

private:
  Eina_List *list_;
};
