// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "top/TopView.h"

namespace {

constexpr std::size_t kMostFilter = 60;

TopAction TypeFilter(TopView& view, int key) {
  if (key == kEnter || key == kEscape) {
    view.typing = false;
    if (key == kEscape) view.filter.clear();
  } else if (key == kBackspace) {
    if (!view.filter.empty()) view.filter.pop_back();
  } else if (key >= ' ' && key <= '~' && view.filter.size() < kMostFilter) {
    view.filter += static_cast<char>(key);
  }
  view.scrolled = 0;
  return TopAction::kRedraw;
}

void Scroll(TopView& view, int key, std::size_t page) {
  const std::size_t step = key == kUp || key == kDown ? 1 : page;
  if (key == kDown || key == kPageDown) view.scrolled += step;
  if (key == kUp || key == kPageUp) view.scrolled -= step < view.scrolled ? step : view.scrolled;
  if (key == kHome) view.scrolled = 0;
}

template <typename Enum>
Enum Next(Enum value, Enum last) {
  return value == last ? Enum{} : static_cast<Enum>(static_cast<int>(value) + 1);
}

}  // namespace

TopAction PressKey(TopView& view, int key, std::size_t page) {
  if (view.typing) return TypeFilter(view, key);
  switch (key) {
    case 'q':
      return TopAction::kQuit;
    case 's':
      view.order = Next(view.order, TopView::Order::kName);
      break;
    case '/':
      view.typing = true;
      break;
    case ' ':
      view.stopped = !view.stopped;
      break;
    case '\t':
      view.part = Next(view.part, TopView::Part::kRows);
      view.scrolled = 0;
      break;
    case kEscape:
      view.filter.clear();
      break;
    default:
      Scroll(view, key, page);
  }
  return TopAction::kRedraw;
}
