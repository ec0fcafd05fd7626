#include "qm/Entry.h"

bool operator<(const Entry& a, const Entry& b) { return a.ip < b.ip; }

bool operator==(const Entry& a, const Entry& b) { return a.ip == b.ip; }
