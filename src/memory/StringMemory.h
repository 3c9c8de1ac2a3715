#pragma once

#include <string>

// Strings keep their memory when they become shorter. These two keep it where it is likely to be used again, so that
// rows of usual sizes need no allocation, and give it back where it would be held for the longest value ever seen.

// Assigns; takes no more memory than it needs, and gives it back if three quarters of it would be unused.
void AssignAndTrim(std::string& stored, const std::string& value);

// Empties a string that is a place for the next one: one of more than 4 KiB gives its memory back.
void EmptyForReuse(std::string& place);
