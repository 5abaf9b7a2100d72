// A symbol of a library; null when there is none.
#ifndef CLIENT_LOAD_H
#define CLIENT_LOAD_H

const void* LoadSymbol(const char* library, const char* name);

#endif
