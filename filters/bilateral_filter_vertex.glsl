// Edge-preserving blur: five sample points along the diagonal through the
// pixel, one pixel_size apart, the pixel itself in the middle.
attribute vec4 a_position;
attribute vec2 a_texcoord;
uniform mat4 mvpMatrix;
uniform vec2 pixel_size;
varying vec2 textureCoordinate;
varying vec2 blurCoordinates[5];

void main()
{
    gl_Position = mvpMatrix * a_position;
    textureCoordinate = a_texcoord;
    for (int i = 0; i < 5; i++)
        blurCoordinates[i] = a_texcoord + float(i - 2) * pixel_size;
}
