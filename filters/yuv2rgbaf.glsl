// Planar YUV (studio-range coefficients, one plane per texture, the value in
// red) to opaque RGBA.
varying vec2 textureOut;

uniform sampler2D tex_y;
uniform sampler2D tex_u;
uniform sampler2D tex_v;

void main()
{
    float y = texture2D(tex_y, textureOut).r;
    float u = texture2D(tex_u, textureOut).r - 0.5;
    float v = texture2D(tex_v, textureOut).r - 0.5;
    vec3 rgb;
    rgb.r = 1.164 * y + 1.596 * v;
    rgb.g = 1.164 * y - 0.392 * u - 0.813 * v;
    rgb.b = 1.164 * y + 2.017 * u;
    gl_FragColor = vec4(rgb, 1.0);
}
