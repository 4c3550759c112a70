// What the life of a process under the shim offers besides reports as the environment asks.
#pragma once

// Writes a report now, with a search for lost blocks. Returns whether any is lost that the program does not suppress;
// false where nobody is to search. Once `settles`, what this search finds is what later reports say is lost, of which
// nobody searches again.
bool report_leaks(bool settles);
