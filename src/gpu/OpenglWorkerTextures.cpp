// The worker base's textures: the plain textures, the input picture's
// texture and the two-stage streaming upload.
#include "gpu/OpenglWorkerBase.h"

#include <exception>

#include <QDebug>
#include <QOpenGLTexture>

#include "base/Logging.h"
#include "gpu/GlTextures.h"

void OpenglWorkerBase::uploadTexture(uchar* data, bool hasAlpha)
{
    const GLenum format = hasAlpha ? GL_RGBA : GL_RGB;
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, textures[0]);
    glTexImage2D(GL_TEXTURE_2D, 0, format, frameWidth, frameHeight, 0, format, GL_UNSIGNED_BYTE, data);
}

void OpenglWorkerBase::uploadTextureByPbo(int unit, const QImage& image)
{
    const int size = image.width() * image.height() * 4;
    QOpenGLBuffer* current = uploadIndex ? uploadBuffer0 : uploadBuffer1;
    QOpenGLBuffer* other = uploadIndex ? uploadBuffer1 : uploadBuffer0;
    for (QOpenGLBuffer* buffer : {current, other}) {
        if (!buffer->isCreated()) {
            buffer->create();
            buffer->setUsagePattern(QOpenGLBuffer::StreamDraw);
        }
    }
    current->bind();
    // Storage is (re)made only at a change of size: the buffer holds the
    // picture written one frame earlier, which is what goes to the texture now.
    if (current->size() != size)
        current->allocate(size);
    glActiveTexture(static_cast<GLenum>(unit));
    glBindTexture(GL_TEXTURE_2D, textures[0]);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, image.width(), image.height(), 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    current->release();

    if (firstFrame) {
        firstFrame = false;
    } else {
        other->bind();
        if (other->size() != size)
            other->allocate(size);
        other->write(0, image.constBits(), size);
        other->release();
    }
    uploadIndex = !uploadIndex;
}

void OpenglWorkerBase::bindQtTexture(const QImage& image, bool mipmaps)
{
    glActiveTexture(GL_TEXTURE0);
    if (inputTexture && image.width() == inputTexWidth && image.height() == inputTexHeight
        && image.hasAlphaChannel() == inputTexHasAlpha) {
        if (!image.isNull() && image.width() > 0 && image.height() > 0) {
            try {
                const QOpenGLTexture::PixelFormat format =
                    image.hasAlphaChannel() ? QOpenGLTexture::RGBA : QOpenGLTexture::RGB;
                inputTexture->setData(0, 0, format, QOpenGLTexture::UInt8, image.constBits(), nullptr);
                if (mipmaps)
                    inputTexture->generateMipMaps();
            } catch (const std::exception& e) {
                qCInfo(lcGpu) << "[OpenglWorkerBase::bindQtTexture]Exception caught while setting texture data: "
                        << e.what();
            }
        }
    } else {
        if (inputTexture) {
            inputTexture->destroy();
            delete inputTexture;
            inputTexture = nullptr;
        }
        inputTexture = new QOpenGLTexture(image, QOpenGLTexture::GenerateMipMaps);
        // Later pictures make their smaller levels only for the passes that
        // can shrink them: a pass at the frame's own size reads level 0.
        inputTexture->setAutoMipMapGenerationEnabled(false);
        inputTexture->setWrapMode(QOpenGLTexture::DirectionS, QOpenGLTexture::ClampToEdge);
        inputTexture->setWrapMode(QOpenGLTexture::DirectionT, QOpenGLTexture::ClampToEdge);
        inputTexture->setMinificationFilter(QOpenGLTexture::LinearMipMapNearest);
        // A mipmap mode for magnification as well, deliberately; GL refuses it
        // and the texture keeps its default.
        inputTexture->setMagnificationFilter(QOpenGLTexture::LinearMipMapLinear);
        inputTexWidth = image.width();
        inputTexHeight = image.height();
        inputTexHasAlpha = image.hasAlphaChannel();
    }
    inputTexture->bind();
    // A draw that reads level 0 only: the nearest-level filter then samples
    // as plain linear filtering does, which the rasteriser does faster.
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, mipmaps ? GL_LINEAR_MIPMAP_NEAREST : GL_LINEAR);
}

GLuint OpenglWorkerBase::createMipmapTexture(const QImage& image)
{
    GLuint name = 0;
    glGenTextures(1, &name);
    glBindTexture(GL_TEXTURE_2D, name);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, image.width(), image.height(), 0, GL_RGBA, GL_UNSIGNED_BYTE,
                 image.constBits());
    glGenerateMipmap(GL_TEXTURE_2D);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_REPEAT);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_REPEAT);
    // The two filters are swapped against the usual use, on purpose.
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR_MIPMAP_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glBindTexture(GL_TEXTURE_2D, 0);
    return name;
}

void OpenglWorkerBase::createTextures()
{
    if (textures[0] != 0)
        glDeleteTextures(1, &textures[0]);
    glGenTextures(1, &textures[0]);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, textures[0]);
    gl::setLinearClamped(this);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, 0);
}

void OpenglWorkerBase::recreateUnpackBuffers()
{
    for (QOpenGLBuffer* buffer : {&unpackBufferA, &unpackBufferB}) {
        if (buffer->isCreated())
            buffer->destroy();
        buffer->create();
        buffer->setUsagePattern(QOpenGLBuffer::StreamDraw);
    }
}
