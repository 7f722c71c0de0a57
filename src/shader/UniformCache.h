#pragma once
// Uniform locations looked up once per program: the first use of a name asks
// GL, later uses find it in a table that lives as long as the program (it is
// a child object of the program, so a program deleted takes its table along
// and a later one at the same address starts afresh). A program is linked
// once and used on one thread, the one of its context.

#include <QOpenGLShaderProgram>

namespace uniforms {

// The location of `name` in the linked `program`; -1 where it has none (GL
// then ignores the value).
int location(QOpenGLShaderProgram* program, const char* name);

// Sets a uniform by name through the program's table.
template <typename... Values>
void set(QOpenGLShaderProgram* program, const char* name, Values... values)
{
    if (program)
        program->setUniformValue(location(program, name), values...);
}

// How many names the program's table holds (for tests).
int cachedNames(QOpenGLShaderProgram* program);

}  // namespace uniforms
