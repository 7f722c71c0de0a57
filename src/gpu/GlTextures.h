#pragma once
// GL values that the workers and the texture buffers share.

#include <QOpenGLFramebufferObject>
#include <QOpenGLFunctions>

namespace gl {

// Every framebuffer has colour and depth; a clear clears both.
constexpr GLbitfield kClearColourAndDepth = GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT;

// The format of every framebuffer of a worker.
inline QOpenGLFramebufferObjectFormat frameFormat()
{
    QOpenGLFramebufferObjectFormat format;
    format.setAttachment(QOpenGLFramebufferObject::CombinedDepthStencil);
    return format;
}

// Clears a framebuffer, with the viewport set to `width` x `height`, and
// binds the default one again.
inline void clearFramebuffer(QOpenGLFunctions* f, QOpenGLFramebufferObject* target, int width, int height)
{
    target->bind();
    f->glViewport(0, 0, width, height);
    f->glClear(kClearColourAndDepth);
    QOpenGLFramebufferObject::bindDefault();
}

// Unbinds, releases and deletes a framebuffer, if there is one.
inline void dropFbo(QOpenGLFramebufferObject*& target)
{
    if (!target)
        return;
    target->release();
    delete target;
    target = nullptr;
}

// The set-up of every plain texture of the engine, on the texture bound to
// GL_TEXTURE_2D: linear filtering both ways, edges clamped.
inline void setLinearClamped(QOpenGLFunctions* f)
{
    f->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    f->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    f->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    f->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
}

}  // namespace gl
