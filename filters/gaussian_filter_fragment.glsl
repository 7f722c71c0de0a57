// Disc blur of radius 17 pixels: the centre and 4 rings of 16 directions.
// The sum of these 65 samples is divided by 49, not 65, so the result is
// brighter than the picture by 65/49; that is intended and stays.
varying vec2 textureCoordinate;

uniform sampler2D inputTexture;
uniform sampler2D kernelTexture;
uniform vec2 pixel_size;

const float PI2 = 6.28318530718;
const int directions = 16;
const int rings = 4;

void main()
{
    vec2 radius = 17.0 * pixel_size;
    vec4 color = texture2D(inputTexture, textureCoordinate);
    for (int d = 0; d < directions; d++) {
        float angle = PI2 * float(d) / float(directions);
        vec2 direction = vec2(cos(angle), sin(angle));
        for (int r = 1; r <= rings; r++) {
            float ring = float(r) / float(rings);
            color += texture2D(inputTexture, textureCoordinate + direction * radius * ring);
        }
    }
    gl_FragColor = color / float(rings * directions - 15);
}
