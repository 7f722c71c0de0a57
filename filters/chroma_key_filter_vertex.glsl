// Keying pass: a full-screen quad. The coordinate goes out as tex_coord, which
// the four green_filter stages read as well.
attribute vec4 a_position;
attribute vec2 a_texcoord;
uniform mat4 mvpMatrix;
varying vec2 tex_coord;

void main()
{
    gl_Position = mvpMatrix * a_position;
    tex_coord = a_texcoord;
}
