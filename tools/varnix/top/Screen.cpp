// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// The only source that sees ncurses, whose names are macros.
#include "top/Screen.h"

#include <curses.h>
#include <unistd.h>

#include <stdexcept>

#include "top/TopView.h"

namespace {

constexpr short kGreenPair = 1;

attr_t Attributes(TopPage::Style style) {
  switch (style) {
    case TopPage::Style::kPlain:
      return A_NORMAL;
    case TopPage::Style::kTitle:
    case TopPage::Style::kKeys:
      return A_REVERSE;
    case TopPage::Style::kHeading:
      return A_BOLD;
    case TopPage::Style::kFresh:
      return has_colors() ? static_cast<attr_t>(COLOR_PAIR(kGreenPair)) : A_BOLD;
  }
  return A_NORMAL;
}

int ToTopKey(int key) {
  switch (key) {
    case ERR:
      return 0;
    case KEY_RESIZE:
      return -1;
    case KEY_UP:
      return kUp;
    case KEY_DOWN:
      return kDown;
    case KEY_PPAGE:
      return kPageUp;
    case KEY_NPAGE:
      return kPageDown;
    case KEY_HOME:
      return kHome;
    case KEY_ENTER:
    case '\n':
    case '\r':
      return kEnter;
    case KEY_BACKSPACE:
    case '\b':
    case '\x7f':
      return kBackspace;
    case '\x1b':
      return kEscape;
    default:
      return key;
  }
}

}  // namespace

Screen::Screen() {
  if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) throw std::runtime_error("top needs a terminal");
  if (newterm(nullptr, stdout, stdin) == nullptr) {
    throw std::runtime_error("this terminal cannot show a screen; TERM names its kind");
  }
  cbreak();
  noecho();
  keypad(stdscr, TRUE);
  nodelay(stdscr, TRUE);
  set_escdelay(50);  // Milliseconds: an escape alone is a key, too.
  curs_set(0);
  if (!has_colors()) return;
  start_color();
  use_default_colors();
  init_pair(kGreenPair, COLOR_GREEN, -1);
}

void Screen::Close() {
  if (!closed_) endwin();
  closed_ = true;
}

std::size_t Screen::Width() const { return static_cast<std::size_t>(getmaxx(stdscr)); }
std::size_t Screen::Height() const { return static_cast<std::size_t>(getmaxy(stdscr)); }

void Screen::Show(const std::vector<TopPage::Line>& lines) {
  erase();
  for (std::size_t i = 0; i < lines.size(); ++i) {
    attrset(Attributes(lines[i].style));
    mvaddstr(static_cast<int>(i), 0, lines[i].text.c_str());
  }
  attrset(A_NORMAL);
  refresh();
}

int Screen::NextKey() { return ToTopKey(getch()); }
