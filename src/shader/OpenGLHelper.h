#pragma once
// GLSL version detection, shader headers and shader file loading.
//
// The shader files are written in the old dialect (attribute, varying,
// texture2D, gl_FragColor) and carry no #version line; the header built here
// makes one source text compile under the version of the current context.

#include <QByteArray>
#include <QString>

namespace OpenGLHelper {

// The version of the current context as major * 100 + minor, cached after the
// first success. 0 (and nothing cached) when no context is current.
int GLSLVersion();

// Whether the current context, or without one the platform, uses OpenGL ES.
bool isOpenGLES();

// Precision lines and, for a fragment shader (kind 2), the texture alias.
QByteArray precisionHeader(int shaderKind);

// The complete text to put in front of a shader source. Kind 1 is vertex, 2 fragment.
QByteArray versionHeader(int shaderKind);

// The bytes of a shader file (resource or plain path); empty on failure.
QByteArray loadShaderFile(const QString& path);

// The pieces behind the functions above, free of any GL state.
// parseGlslVersion turns a GL_SHADING_LANGUAGE_VERSION text into a number; a
// text it can't read gives the fallback (110 on desktop, 100 or 300 on ES by
// the context's major version) and a warning.
int parseGlslVersion(const char* versionText, bool openGLES = false, int esMajorVersion = 0);
QByteArray precisionHeaderFor(int shaderKind, bool openGLES);
QByteArray versionHeaderFor(int shaderKind, int glslVersion, bool openGLES);

// The process-wide cache: negative while unknown.
int cachedGlslVersion();
void resetCachedGlslVersion();

}  // namespace OpenGLHelper
