#include "tools/ozm/MeshRenderer.h"

#include <GLES3/gl3.h>

#include <algorithm>
#include <cstdio>

namespace OzmTool {
namespace {

constexpr GLsizei kVertexBytes = 32;

const char* const kVertexShader = R"(#version 300 es
layout(location = 0) in vec3 a_position;
layout(location = 1) in vec3 a_normal;
layout(location = 2) in vec2 a_uv;
uniform mat4 u_viewProjection;
uniform vec3 u_eye;
out vec3 v_normal;
out vec2 v_uv;
out vec3 v_toEye;
void main() {
  v_normal = a_normal;
  v_uv = a_uv;
  v_toEye = u_eye - a_position;
  gl_Position = u_viewProjection * vec4(a_position, 1.0);
}
)";

// Texture times light: a quarter of it ambient, the rest diffuse from one direction. Both faces are
// lit (the normal is turned towards the eye), and a vertex without a usable normal (one that no
// triangle uses has none) takes the direction of the eye.
const char* const kFragmentShader = R"(#version 300 es
precision highp float;
in vec3 v_normal;
in vec2 v_uv;
in vec3 v_toEye;
uniform sampler2D u_texture;
uniform vec3 u_light;
out vec4 o_color;
void main() {
  vec3 toEye = normalize(v_toEye);
  float length2 = dot(v_normal, v_normal);
  vec3 n = length2 > 1e-12 ? v_normal * inversesqrt(length2) : toEye;
  if (dot(n, toEye) < 0.0) n = -n;
  float light = 0.3 + 0.7 * max(dot(n, u_light), 0.0);
  o_color = vec4(texture(u_texture, v_uv).rgb * light, 1.0);
}
)";

std::string Hex(unsigned int value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%04x", value);
  return text;
}

GLuint Compile(GLenum type, const char* source, std::string* error) {
  const GLuint shader = glCreateShader(type);
  glShaderSource(shader, 1, &source, nullptr);
  glCompileShader(shader);
  GLint ok = 0;
  glGetShaderiv(shader, GL_COMPILE_STATUS, &ok);
  if (!ok) {
    char log[512] = {};
    glGetShaderInfoLog(shader, sizeof log, nullptr, log);
    *error = std::string(type == GL_VERTEX_SHADER ? "vertex" : "fragment") + " shader: " + log;
    glDeleteShader(shader);
    return 0;
  }
  return shader;
}

// The bindings and switches the renderer changes, put back when it is done.
class SavedState {
 public:
  SavedState() {
    glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &m_drawFramebuffer);
    glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &m_readFramebuffer);
    glGetIntegerv(GL_VIEWPORT, m_viewport);
    glGetIntegerv(GL_CURRENT_PROGRAM, &m_program);
    glGetIntegerv(GL_VERTEX_ARRAY_BINDING, &m_vertexArray);
    glGetIntegerv(GL_ARRAY_BUFFER_BINDING, &m_arrayBuffer);
    glGetIntegerv(GL_ACTIVE_TEXTURE, &m_activeTexture);
    glActiveTexture(GL_TEXTURE0);
    glGetIntegerv(GL_TEXTURE_BINDING_2D, &m_texture);
    glGetIntegerv(GL_PIXEL_PACK_BUFFER_BINDING, &m_packBuffer);
    glGetIntegerv(GL_PACK_ALIGNMENT, &m_packAlignment);
    glGetFloatv(GL_COLOR_CLEAR_VALUE, m_clearColor);
    glGetBooleanv(GL_DEPTH_WRITEMASK, &m_depthMask);
    glGetBooleanv(GL_COLOR_WRITEMASK, m_colorMask);
    glGetIntegerv(GL_DEPTH_FUNC, &m_depthFunc);
    m_depthTest = glIsEnabled(GL_DEPTH_TEST);
    m_cullFace = glIsEnabled(GL_CULL_FACE);
    m_blend = glIsEnabled(GL_BLEND);
    m_scissor = glIsEnabled(GL_SCISSOR_TEST);
    m_stencil = glIsEnabled(GL_STENCIL_TEST);
  }
  ~SavedState() {
    glBindFramebuffer(GL_DRAW_FRAMEBUFFER, static_cast<GLuint>(m_drawFramebuffer));
    glBindFramebuffer(GL_READ_FRAMEBUFFER, static_cast<GLuint>(m_readFramebuffer));
    glViewport(m_viewport[0], m_viewport[1], m_viewport[2], m_viewport[3]);
    glUseProgram(static_cast<GLuint>(m_program));
    glBindVertexArray(static_cast<GLuint>(m_vertexArray));
    glBindBuffer(GL_ARRAY_BUFFER, static_cast<GLuint>(m_arrayBuffer));
    glBindTexture(GL_TEXTURE_2D, static_cast<GLuint>(m_texture));
    glActiveTexture(static_cast<GLenum>(m_activeTexture));
    glBindBuffer(GL_PIXEL_PACK_BUFFER, static_cast<GLuint>(m_packBuffer));
    glPixelStorei(GL_PACK_ALIGNMENT, m_packAlignment);
    glClearColor(m_clearColor[0], m_clearColor[1], m_clearColor[2], m_clearColor[3]);
    glDepthMask(m_depthMask);
    glColorMask(m_colorMask[0], m_colorMask[1], m_colorMask[2], m_colorMask[3]);
    glDepthFunc(static_cast<GLenum>(m_depthFunc));
    Set(GL_DEPTH_TEST, m_depthTest);
    Set(GL_CULL_FACE, m_cullFace);
    Set(GL_BLEND, m_blend);
    Set(GL_SCISSOR_TEST, m_scissor);
    Set(GL_STENCIL_TEST, m_stencil);
  }
  SavedState(const SavedState&) = delete;
  SavedState& operator=(const SavedState&) = delete;

 private:
  static void Set(GLenum capability, GLboolean on) { on ? glEnable(capability) : glDisable(capability); }

  GLint m_drawFramebuffer = 0, m_readFramebuffer = 0, m_viewport[4] = {}, m_program = 0, m_vertexArray = 0;
  GLint m_arrayBuffer = 0, m_activeTexture = GL_TEXTURE0, m_texture = 0, m_packBuffer = 0, m_packAlignment = 4;
  GLint m_depthFunc = GL_LESS;
  GLfloat m_clearColor[4] = {};
  GLboolean m_depthMask = GL_TRUE, m_colorMask[4] = {GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE};
  GLboolean m_depthTest = GL_FALSE, m_cullFace = GL_FALSE, m_blend = GL_FALSE, m_scissor = GL_FALSE;
  GLboolean m_stencil = GL_FALSE;
};

}  // namespace

bool MeshRenderer::Prepare(const OzmEngine::EngineTargets& targets, std::string* error) {
  if (m_failed) {
    *error = m_failure;
    return false;
  }
  auto fail = [&](const std::string& why) {
    m_failed = true;
    m_failure = why;
    *error = why;
    return false;
  };
  if (!m_program) {
    const GLuint vertex = Compile(GL_VERTEX_SHADER, kVertexShader, error);
    if (!vertex) return fail(*error);
    const GLuint fragment = Compile(GL_FRAGMENT_SHADER, kFragmentShader, error);
    if (!fragment) {
      glDeleteShader(vertex);
      return fail(*error);
    }
    m_program = glCreateProgram();
    glAttachShader(m_program, vertex);
    glAttachShader(m_program, fragment);
    glLinkProgram(m_program);
    glDeleteShader(vertex);
    glDeleteShader(fragment);
    GLint linked = 0;
    glGetProgramiv(m_program, GL_LINK_STATUS, &linked);
    if (!linked) {
      char log[512] = {};
      glGetProgramInfoLog(m_program, sizeof log, nullptr, log);
      return fail(std::string("the drawing program does not link: ") + log);
    }
    m_viewProjection = glGetUniformLocation(m_program, "u_viewProjection");
    m_eye = glGetUniformLocation(m_program, "u_eye");
    m_light = glGetUniformLocation(m_program, "u_light");
    m_texture = glGetUniformLocation(m_program, "u_texture");
  }
  if (!m_framebuffer) {
    glGenRenderbuffers(1, &m_color);
    glBindRenderbuffer(GL_RENDERBUFFER, m_color);
    glRenderbufferStorage(GL_RENDERBUFFER, GL_RGBA8, m_width, m_height);
    glGenRenderbuffers(1, &m_depth);
    glBindRenderbuffer(GL_RENDERBUFFER, m_depth);
    glRenderbufferStorage(GL_RENDERBUFFER, GL_DEPTH_COMPONENT24, m_width, m_height);
    glBindRenderbuffer(GL_RENDERBUFFER, 0);
    glGenFramebuffers(1, &m_framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffer);
    glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, m_color);
    glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, GL_RENDERBUFFER, m_depth);
    const GLenum status = glCheckFramebufferStatus(GL_FRAMEBUFFER);
    if (status != GL_FRAMEBUFFER_COMPLETE) return fail("the picture's framebuffer is incomplete (" + Hex(status) + ")");
  }
  // The engine's buffers, bound once: an engine registers them with the plug-in and keeps them.
  if (!m_vertexArray || m_vertexBuffer != targets.vertexBuffer || m_indexBuffer != targets.indexBuffer) {
    if (!m_vertexArray) glGenVertexArrays(1, &m_vertexArray);
    glBindVertexArray(m_vertexArray);
    glBindBuffer(GL_ARRAY_BUFFER, targets.vertexBuffer);
    glEnableVertexAttribArray(0);
    glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, kVertexBytes, reinterpret_cast<const void*>(0));
    glEnableVertexAttribArray(1);
    glVertexAttribPointer(1, 3, GL_FLOAT, GL_FALSE, kVertexBytes, reinterpret_cast<const void*>(12));
    glEnableVertexAttribArray(2);
    glVertexAttribPointer(2, 2, GL_FLOAT, GL_FALSE, kVertexBytes, reinterpret_cast<const void*>(24));
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, targets.indexBuffer);
    glBindVertexArray(0);
    m_vertexBuffer = targets.vertexBuffer;
    m_indexBuffer = targets.indexBuffer;
  }
  return true;
}

bool MeshRenderer::Draw(const OzmEngine::EngineTargets& targets, uint32_t indexCount, const CameraView& view,
                        std::vector<uint8_t>* rgba, std::string* error) {
  // Errors left by others are not ours to report.
  while (glGetError() != GL_NO_ERROR) {
  }
  SavedState saved;
  if (!Prepare(targets, error)) return false;
  glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffer);
  glViewport(0, 0, m_width, m_height);
  glDisable(GL_SCISSOR_TEST);
  glDisable(GL_STENCIL_TEST);
  glDisable(GL_BLEND);
  glDisable(GL_CULL_FACE);
  glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
  glDepthMask(GL_TRUE);
  glClearColor(kBackground[0] / 255.0f, kBackground[1] / 255.0f, kBackground[2] / 255.0f, 1.0f);
  glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
  const GLsizei count = static_cast<GLsizei>(std::min(indexCount, targets.indexCapacity) / 3 * 3);
  if (count > 0) {
    glEnable(GL_DEPTH_TEST);
    glDepthFunc(GL_LESS);
    glUseProgram(m_program);
    glUniformMatrix4fv(m_viewProjection, 1, GL_FALSE, view.viewProjection.data());
    glUniform3fv(m_eye, 1, view.eye.data());
    glUniform3fv(m_light, 1, view.light.data());
    glUniform1i(m_texture, 0);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, targets.texture);
    glBindVertexArray(m_vertexArray);
    glDrawElements(GL_TRIANGLES, count, GL_UNSIGNED_INT, nullptr);
    glBindVertexArray(0);
  }
  if (rgba) {
    rgba->resize(static_cast<size_t>(m_width) * m_height * 4);
    glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glReadPixels(0, 0, m_width, m_height, GL_RGBA, GL_UNSIGNED_BYTE, rgba->data());
  } else {
    glFlush();
  }
  const GLenum glError = glGetError();
  if (glError != GL_NO_ERROR) {
    *error = "GL error " + Hex(glError) + " while drawing the mesh";
    return false;
  }
  return true;
}

void MeshRenderer::Release() {
  if (m_program) glDeleteProgram(m_program);
  if (m_vertexArray) glDeleteVertexArrays(1, &m_vertexArray);
  if (m_framebuffer) glDeleteFramebuffers(1, &m_framebuffer);
  if (m_color) glDeleteRenderbuffers(1, &m_color);
  if (m_depth) glDeleteRenderbuffers(1, &m_depth);
  m_program = m_vertexArray = m_framebuffer = m_color = m_depth = 0;
  m_vertexBuffer = m_indexBuffer = 0;
}

}  // namespace OzmTool
