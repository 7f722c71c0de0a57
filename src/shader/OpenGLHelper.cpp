#include "shader/OpenGLHelper.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QOpenGLContext>
#include <QOpenGLFunctions>

#include "base/Logging.h"

namespace OpenGLHelper {

namespace {

// Only ever goes from unknown to a version; every context of the process is
// taken to have the same one, so racing writers store the same value.
std::atomic<int> glslVersionCache{-1};

const char kEsPrefix[] = "OpenGL ES GLSL ES ";

}  // namespace

int cachedGlslVersion()
{
    return glslVersionCache.load();
}

void resetCachedGlslVersion()
{
    glslVersionCache.store(-1);
}

int parseGlslVersion(const char* versionText, bool openGLES, int esMajorVersion)
{
    const char* text = versionText ? versionText : "";
    const size_t prefixLength = sizeof(kEsPrefix) - 1;  // 18 characters
    if (std::strncmp(text, kEsPrefix, prefixLength) == 0)
        text += prefixLength;

    int major = 0;
    int minor = 0;
    if (std::sscanf(text, "%d.%d", &major, &minor) == 2)
        return major * 100 + minor;

    qCWarning(lcGpu, "Failed to detect glsl version using GL_SHADING_LANGUAGE_VERSION!");
    if (openGLES)
        return esMajorVersion < 3 ? 100 : 300;
    return 110;
}

int GLSLVersion()
{
    const int cached = glslVersionCache.load();
    if (cached >= 0)
        return cached;

    QOpenGLContext* context = QOpenGLContext::currentContext();
    if (!context) {
        qCWarning(lcGpu, "%s: current context is null", "OpenGLHelper::GLSLVersion");
        return 0;
    }
    const auto* text = reinterpret_cast<const char*>(
        context->functions()->glGetString(GL_SHADING_LANGUAGE_VERSION));
    const int version = parseGlslVersion(text, isOpenGLES(), context->format().majorVersion());
    glslVersionCache.store(version);
    return version;
}

bool isOpenGLES()
{
    if (QOpenGLContext* context = QOpenGLContext::currentContext())
        return context->isOpenGLES();
    QCoreApplication* app = QCoreApplication::instance();
    // A plain core application has no GUI platform to ask.
    if (!app || std::strcmp(app->metaObject()->className(), "QCoreApplication") == 0)
        return false;
    return QOpenGLContext::openGLModuleType() != QOpenGLContext::LibGL;
}

QByteArray precisionHeaderFor(int shaderKind, bool openGLES)
{
    QByteArray header;
    if (openGLES)
        header += "precision mediump int;\nprecision mediump float;\n";
    else
        header += "#define highp\n#define mediump\n#define lowp\n";
    if (shaderKind == 2)
        header += "#if __VERSION__ < 130\n#define texture texture2D\n#else\n#define texture2D texture\n#endif // < 130\n";
    return header;
}

QByteArray precisionHeader(int shaderKind)
{
    return precisionHeaderFor(shaderKind, isOpenGLES());
}

QByteArray versionHeaderFor(int shaderKind, int glslVersion, bool openGLES)
{
    // No #version line on ES on purpose: ShaderWorker refuses such a text, so
    // the engine runs on desktop OpenGL only.
    if (openGLES)
        return precisionHeaderFor(shaderKind, true);

    QByteArray header("#version ");
    header += QByteArray::number(glslVersion);
    // Unreachable on this path (ES returned above); kept with the version test.
    if (openGLES && glslVersion >= 300)
        header += " es";
    header += "\n";
    header += precisionHeaderFor(shaderKind, false);
    if (glslVersion >= 130) {
        if (shaderKind == 1)
            header += "#define attribute in\n#define varying out\n";
        else
            header += "#define varying in\n#define gl_FragColor out_color\nout vec4 gl_FragColor;\n";
    }
    return header;
}

QByteArray versionHeader(int shaderKind)
{
    const bool es = isOpenGLES();
    if (es)
        return precisionHeaderFor(shaderKind, true);
    return versionHeaderFor(shaderKind, GLSLVersion(), false);
}

QByteArray loadShaderFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        qCWarning(lcGpu, "Can not load shader %s: %s", path.toUtf8().constData(), file.errorString().toUtf8().constData());
        return QByteArray();
    }
    QByteArray bytes = file.readAll();
    file.close();
    return bytes;
}

}  // namespace OpenGLHelper
