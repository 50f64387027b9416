#include "libglutil/ContextSession.h"

#include "libglutil/QtContext.h"

ContextSession::ContextSession(int& argc, char** argv) : session_(std::make_unique<GLContextSession>(argc, argv)) {}

ContextSession::~ContextSession() = default;
