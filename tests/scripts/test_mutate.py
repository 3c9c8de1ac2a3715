# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""scripts/mutate finds the places that it breaks, also after the source has changed around them."""

import pytest

import scripts

mutate = scripts.load("mutate")


def test_every_mutation_has_its_place():
    mutate.check(mutate.sources(scripts.SOURCE))


def mutated(text, before, after, file="tables/Table.cpp", written_for="tables/Table.cpp"):
    place = mutate.find({file: text}, written_for, before)
    return place.file, place.replaced(after)


@pytest.mark.parametrize("what, text", [
    ("as it is written", "  if (a == limit) return;\n  Tell(a);\n"),
    ("with other spaces", "if (a ==\n      limit)   return;\n\nTell( a );\n"),
    ("with comments", "  if (a == limit) return;  // Enough.\n  /* Or not. */ Tell(a);\n"),
])
def test_a_place_is_found(what, text):
    _, changed = mutated(text, "  if (a == limit) return;\n  Tell(a);\n", "Tell(a);")

    assert changed.strip() == "Tell(a);"


def test_a_place_is_found_under_other_names_of_variables_and_the_mutation_uses_them():
    _, changed = mutated("b_ += 1;\nif (b_ == kMost) return;\nTell(b_);\n", "if (a == limit) return;\nTell(a);",
                         "if (a > limit) return;\nTell(a);")

    assert changed == "b_ += 1;\nif (b_ > kMost) return;\nTell(b_);\n"


def test_a_place_that_has_moved_to_another_folder_or_file_is_found():
    assert mutated("Tell(a);\n", "Tell(a);", "", file="memory/Table.cpp") == ("memory/Table.cpp", "\n")
    assert mutated("Tell(a);\n", "Tell(a);", "", file="tables/Other.cpp") == ("tables/Other.cpp", "\n")


@pytest.mark.parametrize("what, text, why", [
    ("another function", "if (a == limit) return;\nAsk(a);\n", "nowhere"),
    ("two variables that were one", "if (a == limit) return;\nTell(b);\n", "nowhere"),
    ("one variable that was two", "if (a == a) return;\nTell(a);\n", "nowhere"),
    ("a number for a variable", "if (a == 7) return;\nTell(a);\n", "nowhere"),
    ("the place twice", "if (a == limit) return;\nTell(a);\nif (a == limit) return;\nTell(a);\n", "2 times"),
    ("it twice with other names", "if (b == c) return;\nTell(b);\nif (d == e) return;\nTell(d);\n", "2 times"),
    ("other names in another file", "", "nowhere"),
])
def test_a_place_is_lost_for(what, text, why):
    files = {"tables/Table.cpp": text, "tables/Other.cpp": "if (b == c) return;\nTell(b);\n"}

    with pytest.raises(LookupError, match=why):
        mutate.find(files, "tables/Table.cpp", "if (a == limit) return;\nTell(a);")


def test_what_has_no_word_but_names_of_variables_is_not_looked_for_under_others():
    with pytest.raises(LookupError, match="nowhere"):
        mutate.find({"tables/Table.cpp": "b += c;"}, "tables/Table.cpp", "a += sent;")


def test_a_name_before_a_parenthesis_is_that_of_a_function():
    with pytest.raises(LookupError, match="nowhere"):
        mutate.find({"tables/Table.cpp": "send(a);"}, "tables/Table.cpp", "close(a);")
