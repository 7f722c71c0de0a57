// #version 330 core
// Textured, lit mesh. Needs GLSL 3.30 or later, which the shader header
// supplies; attribute and varying become in and out there, and varying on the
// block makes it the interface to the fragment stage.
layout(location = 0) attribute vec3 a_position;
layout(location = 1) attribute vec3 a_normal;
layout(location = 2) attribute vec2 a_texcoord;
layout(location = 3) attribute vec3 a_tangent;

uniform mat4 modelMatrix;
uniform mat4 viewMatrix;
uniform mat4 projMatrix;

varying VS_OUT {
    vec2 texCoords;
    vec3 fragPos;
    mat3 TBN;
} vs_out;

void main()
{
    vec4 worldPos = modelMatrix * vec4(a_position, 1.0);
    gl_Position = projMatrix * viewMatrix * worldPos;
    vs_out.texCoords = a_texcoord;
    vs_out.fragPos = vec3(worldPos);

    // Tangent space in world coordinates: normal and tangent through the
    // normal matrix, the tangent made orthogonal to the normal again.
    mat3 normalMatrix = transpose(inverse(mat3(modelMatrix)));
    vec3 N = normalize(normalMatrix * a_normal);
    vec3 T = normalize(normalMatrix * a_tangent);
    T = normalize(T - dot(T, N) * N);
    vec3 B = cross(N, T);
    vs_out.TBN = mat3(T, B, N);
}
