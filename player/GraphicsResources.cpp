#include "player/GraphicsResources.h"

#include <EGL/egl.h>
#include <GLES3/gl3.h>

#include <vector>

#include "OzmCore/MeshFrame.h"
#include "platform/Log.h"
#include "player/EngineContext.h"

// From OES_EGL_image_external, which GLES 3 headers leave to the extension header.
#ifndef GL_TEXTURE_EXTERNAL_OES
#define GL_TEXTURE_EXTERNAL_OES 0x8D65
#endif
#ifndef GL_TEXTURE_BINDING_EXTERNAL_OES
#define GL_TEXTURE_BINDING_EXTERNAL_OES 0x8D67
#endif

namespace {

const char* const kVertexShader =
    "#version 100\n"
    "attribute vec2 pos;\n"
    "varying vec2 uv;\n"
    "uniform highp vec2 uvScale;\n"
    "void main()\n"
    "{\n"
    "uv = uvScale * (0.5 * pos + vec2(0.5, 0.5));\n"
    "gl_Position = vec4(pos, 0.0, 1.0);\n"
    "}\n";

const char* const kFragmentShader =
    "#version 100\n"
    "#extension GL_OES_EGL_image_external : require\n"
    "varying mediump vec2 uv;\n"
    "uniform lowp samplerExternalOES textureSampler;\n"
    "void main()\n"
    "{\n"
    "gl_FragColor = texture2D(textureSampler, uv);\n"
    "}\n";

// One triangle larger than the viewport covers it whole.
const float kTriangle[6] = {-1.0f, 3.0f, 3.0f, -1.0f, -1.0f, -1.0f};

// Writes into GL buffer objects: indices with glBufferSubData, vertices through a mapped range.
class GLMeshTarget final : public Ozm::IMeshCopyTarget {
 public:
  GLMeshTarget(GLuint vertexBuffer, GLuint indexBuffer) : m_vertexBuffer(vertexBuffer), m_indexBuffer(indexBuffer) {}
  void WriteIndices(const uint32_t* indices, uint32_t first, uint32_t count) override {
    if (!m_indexBuffer || count == 0) return;
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, m_indexBuffer);
    glBufferSubData(GL_ELEMENT_ARRAY_BUFFER, static_cast<GLintptr>(first) * 4, static_cast<GLsizeiptr>(count) * 4,
                    indices);
  }
  void* BeginVertices(uint32_t bytes) override {
    if (!m_vertexBuffer || bytes == 0) return nullptr;
    glBindBuffer(GL_ARRAY_BUFFER, m_vertexBuffer);
    m_mapped = glMapBufferRange(GL_ARRAY_BUFFER, 0, bytes, GL_MAP_WRITE_BIT | GL_MAP_INVALIDATE_BUFFER_BIT);
    return m_mapped;
  }
  void EndVertices() override {
    if (m_mapped) glUnmapBuffer(GL_ARRAY_BUFFER);
    m_mapped = nullptr;
  }

 private:
  GLuint m_vertexBuffer;
  GLuint m_indexBuffer;
  void* m_mapped = nullptr;
};

}  // namespace

bool GraphicsResources::Initialize(int playerId, void* display, void* engineContext, int engineClientVersion) {
  m_playerId = playerId;
  if (engineContext == EGL_NO_CONTEXT) {
    OzmPlatform::AssertFailed("unityCtx != EGL_NO_CONTEXT", "OzmUnityPluginAndroid", 1242);
  }
  EGLDisplay dpy = display ? static_cast<EGLDisplay>(display) : eglGetDisplay(EGL_DEFAULT_DISPLAY);
  m_display = dpy;
  const EGLint configAttributes[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT,
                                     EGL_NONE};
  EGLConfig config = nullptr;
  EGLint count = 0;
  eglBindAPI(EGL_OPENGL_ES_API);
  if (!eglChooseConfig(dpy, configAttributes, &config, 1, &count) || count < 1) config = nullptr;
  const EGLint pbufferAttributes[] = {EGL_WIDTH, 16, EGL_HEIGHT, 16, EGL_NONE};
  EGLSurface surface = config ? eglCreatePbufferSurface(dpy, config, pbufferAttributes) : EGL_NO_SURFACE;
  const EGLint contextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, engineClientVersion ? engineClientVersion : 3,
                                      EGL_NONE};
  EGLContext context = config ? eglCreateContext(dpy, config, static_cast<EGLContext>(engineContext), contextAttributes)
                              : EGL_NO_CONTEXT;
  m_surface = surface;
  m_context = context;
  if (surface == EGL_NO_SURFACE || context == EGL_NO_CONTEXT || !eglMakeCurrent(dpy, surface, surface, context)) {
    OZM_LOGE("[%i] Couldn't make our EGL context current", playerId);
    return false;
  }
  if (!m_program) {
    m_vertexShader = CompileShader(kVertexShader, GL_VERTEX_SHADER);
    m_fragmentShader = CompileShader(kFragmentShader, GL_FRAGMENT_SHADER);
    if (m_vertexShader && m_fragmentShader) {
      m_program = LinkShader(m_vertexShader, m_fragmentShader);
      if (m_program) {
        glBindAttribLocation(m_program, 0, "pos");
        // The binding takes effect at the next link.
        glLinkProgram(m_program);
        m_samplerLocation = glGetUniformLocation(m_program, "textureSampler");
        m_uvScaleLocation = glGetUniformLocation(m_program, "uvScale");
      }
    }
  }
  glGenBuffers(1, &m_vertexBuffer);
  glBindBuffer(GL_ARRAY_BUFFER, m_vertexBuffer);
  glBufferData(GL_ARRAY_BUFFER, sizeof(kTriangle), kTriangle, GL_STATIC_DRAW);
  glBindBuffer(GL_ARRAY_BUFFER, 0);
  glGenTextures(1, &m_externalTexture);
  glBindTexture(GL_TEXTURE_EXTERNAL_OES, m_externalTexture);
  glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
  glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
  glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
  glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
  glBindTexture(GL_TEXTURE_EXTERNAL_OES, 0);
  // The names must be visible to the engine's context before the render thread uses them.
  glFinish();
  return true;
}

unsigned int GraphicsResources::CompileShader(const char* source, unsigned int type) {
  GLuint shader = glCreateShader(type);
  if (!shader) return 0;
  glShaderSource(shader, 1, &source, nullptr);
  glCompileShader(shader);
  GLint ok = 0;
  glGetShaderiv(shader, GL_COMPILE_STATUS, &ok);
  if (!ok) {
    GLint length = 0;
    glGetShaderiv(shader, GL_INFO_LOG_LENGTH, &length);
    std::vector<char> log(static_cast<size_t>(length > 0 ? length : 1) + 1, 0);
    glGetShaderInfoLog(shader, static_cast<GLsizei>(log.size() - 1), nullptr, log.data());
    OZM_LOGE("Shader compile failed: %s\n", log.data());
    glDeleteShader(shader);
    return 0;
  }
  return shader;
}

unsigned int GraphicsResources::LinkShader(unsigned int vertexShader, unsigned int fragmentShader) {
  GLuint program = glCreateProgram();
  if (!program) return 0;
  glAttachShader(program, vertexShader);
  glAttachShader(program, fragmentShader);
  glLinkProgram(program);
  GLint ok = 0;
  glGetProgramiv(program, GL_LINK_STATUS, &ok);
  if (!ok) {
    GLint length = 0;
    glGetProgramiv(program, GL_INFO_LOG_LENGTH, &length);
    std::vector<char> log(static_cast<size_t>(length > 0 ? length : 1) + 1, 0);
    glGetProgramInfoLog(program, static_cast<GLsizei>(log.size() - 1), nullptr, log.data());
    OZM_LOGE("Program link failed: %s\n", log.data());
    glDeleteProgram(program);
    return 0;
  }
  return program;
}

void GraphicsResources::Cleanup() {
  if (m_context) {
    // The engine's context has drawn with these; they are deleted there, at its next render event.
    RetiredGLObjects retired;
    retired.program = m_program;
    retired.vertexShader = m_vertexShader;
    retired.fragmentShader = m_fragmentShader;
    retired.buffer = m_vertexBuffer;
    retired.texture = m_externalTexture;
    RetireGLObjects(retired);
  }
  m_vertexBuffer = m_program = m_fragmentShader = m_vertexShader = m_externalTexture = 0;
  EGLDisplay dpy = static_cast<EGLDisplay>(m_display);
  if (dpy) {
    eglMakeCurrent(dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    if (m_context) eglDestroyContext(dpy, static_cast<EGLContext>(m_context));
    if (m_surface) eglDestroySurface(dpy, static_cast<EGLSurface>(m_surface));
  }
  m_context = nullptr;
  m_surface = nullptr;
}

void GraphicsResources::CopyTexture(unsigned int texture, int width, int height, int videoWidth, int videoHeight) {
  if (texture == 0 || m_externalTexture == 0 || m_program == 0) return;
  GLint viewport[4] = {0, 0, 0, 0};
  glGetIntegerv(GL_VIEWPORT, viewport);
  const GLboolean scissor = glIsEnabled(GL_SCISSOR_TEST);
  GLint framebuffer = 0;
  glGetIntegerv(GL_FRAMEBUFFER_BINDING, &framebuffer);
  GLint activeTexture = GL_TEXTURE0;
  glGetIntegerv(GL_ACTIVE_TEXTURE, &activeTexture);
  glActiveTexture(GL_TEXTURE0);
  GLint sampler = 0;
  glGetIntegerv(GL_SAMPLER_BINDING, &sampler);
  // The engine's program, external texture, vertex array and attribute 0 are put back too: left
  // pointing at this player's objects they would outlive the player in the engine's context.
  GLint program = 0, external = 0, vertexArray = 0, arrayBuffer = 0, attribEnabled = 0;
  glGetIntegerv(GL_CURRENT_PROGRAM, &program);
  glGetIntegerv(GL_TEXTURE_BINDING_EXTERNAL_OES, &external);
  glGetIntegerv(GL_VERTEX_ARRAY_BINDING, &vertexArray);
  glGetIntegerv(GL_ARRAY_BUFFER_BINDING, &arrayBuffer);

  GLuint fbo = 0;
  glGenFramebuffers(1, &fbo);
  glBindFramebuffer(GL_FRAMEBUFFER, fbo);
  glDisable(GL_BLEND);
  glViewport(0, 0, width, height);
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
  glClearColor(0.0f, 1.0f, 0.0f, 1.0f);
  glClear(GL_COLOR_BUFFER_BIT);
  glDisable(GL_SCISSOR_TEST);

  glUseProgram(m_program);
  glActiveTexture(GL_TEXTURE0);
  glBindSampler(0, 0);
  glBindTexture(GL_TEXTURE_EXTERNAL_OES, m_externalTexture);
  glUniform1i(m_samplerLocation, 0);
  const float sx = videoWidth > 0 ? static_cast<float>(width) / static_cast<float>(videoWidth) : 1.0f;
  const float sy = videoHeight > 0 ? static_cast<float>(height) / static_cast<float>(videoHeight) : 1.0f;
  glUniform2f(m_uvScaleLocation, sx, sy);

  glBindVertexArray(0);
  glGetVertexAttribiv(0, GL_VERTEX_ATTRIB_ARRAY_ENABLED, &attribEnabled);
  GLint attribSize = 4, attribType = GL_FLOAT, attribNormalized = 0, attribStride = 0, attribBuffer = 0;
  void* attribPointer = nullptr;
  glGetVertexAttribiv(0, GL_VERTEX_ATTRIB_ARRAY_SIZE, &attribSize);
  glGetVertexAttribiv(0, GL_VERTEX_ATTRIB_ARRAY_TYPE, &attribType);
  glGetVertexAttribiv(0, GL_VERTEX_ATTRIB_ARRAY_NORMALIZED, &attribNormalized);
  glGetVertexAttribiv(0, GL_VERTEX_ATTRIB_ARRAY_STRIDE, &attribStride);
  glGetVertexAttribiv(0, GL_VERTEX_ATTRIB_ARRAY_BUFFER_BINDING, &attribBuffer);
  glGetVertexAttribPointerv(0, GL_VERTEX_ATTRIB_ARRAY_POINTER, &attribPointer);
  glBindBuffer(GL_ARRAY_BUFFER, m_vertexBuffer);
  glEnableVertexAttribArray(0);
  glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 0, nullptr);
  glDrawArrays(GL_TRIANGLES, 0, 3);

  if (scissor) glEnable(GL_SCISSOR_TEST);
  glBindBuffer(GL_ARRAY_BUFFER, static_cast<GLuint>(attribBuffer));
  glVertexAttribPointer(0, attribSize, static_cast<GLenum>(attribType), attribNormalized ? GL_TRUE : GL_FALSE,
                        attribStride, attribPointer);
  if (!attribEnabled) glDisableVertexAttribArray(0);
  glBindBuffer(GL_ARRAY_BUFFER, static_cast<GLuint>(arrayBuffer));
  glBindVertexArray(static_cast<GLuint>(vertexArray));
  glBindTexture(GL_TEXTURE_EXTERNAL_OES, static_cast<GLuint>(external));
  glUseProgram(static_cast<GLuint>(program));
  glBindSampler(0, static_cast<GLuint>(sampler));
  glActiveTexture(static_cast<GLenum>(activeTexture));
  glBindFramebuffer(GL_FRAMEBUFFER, static_cast<GLuint>(framebuffer));
  glViewport(viewport[0], viewport[1], viewport[2], viewport[3]);
  glDeleteFramebuffers(1, &fbo);
}

void CopyToGLBuffers(Ozm::MeshFrame& frame, unsigned int vertexBufferName, unsigned int indexBufferName,
                     unsigned int indexCapacity, unsigned int vertexCapacity, bool computeNormals, bool updateIndices) {
  GLMeshTarget target(vertexBufferName, indexBufferName);
  frame.CopyTo(target, indexCapacity, vertexCapacity, computeNormals, updateIndices);
}
