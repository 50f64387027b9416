#pragma once
// Puts the current context back into the state the program's start-up leaves
// it in, so that work after a failure (the batch program's next job) starts
// as on a fresh context: nothing bound, default pixel-store and blend state,
// no pending GL error.
void resetContextState();
