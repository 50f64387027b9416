#pragma once
// Context start-up work that needs GLEW: extension loading and initial state.
// Throws opengl_error with GLEW's own text when loading fails.
void initializeGlewAndState();
